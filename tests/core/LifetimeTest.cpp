#include "Probes.hpp"

#include <library/Book.hpp>

#include <kivra/ModelConstellation.hpp>
#include <kivra/WorkQueue.hpp>

#include <gtest/gtest.h>

namespace kivra {
namespace {

// A work queue that tells when its owner frees it: a constellation's queue dies with it.
struct TracedQueue : WorkQueue {
    TracedQueue(TransactionCoordinator const *owner, log::Span span, int &freed)
        : WorkQueue(owner, std::move(span)), freed(freed) {}
    ~TracedQueue() override { ++freed; }
    int &freed;
};

WorkQueueFactory tracedFactory(int &freed) {
    return [&freed](TransactionCoordinator const *owner, log::Span span) {
        return std::make_shared<TracedQueue>(owner, std::move(span), freed);
    };
}

TEST(Lifetime, ConstellationOutlivesItsHandleWhileAModelIsHeld) {
    int freed = 0;
    Model model;
    {
        ModelConstellation constellation = ModelConstellation::create(tracedFactory(freed));
        model = Model::create(constellation);
        Model second = Model::create(constellation);
    }
    EXPECT_EQ(freed, 0);
    EXPECT_TRUE(model);
    EXPECT_EQ(model->getModelConstellation()->modelsCount(), 2u);
    model.reset();
    EXPECT_EQ(freed, 1);
}

TEST(Lifetime, ModelWithoutHandlesStaysWhileTheConstellationIsHeld) {
    int freed = 0;
    ModelConstellation constellation = ModelConstellation::create(tracedFactory(freed));
    auto const uri = [&] {
        Model model = Model::create(constellation);
        return model->getModelURI();
    }();
    // No handle names the model, and it lives on in its constellation.
    EXPECT_FALSE(constellation->hasAliveModels());
    EXPECT_EQ(freed, 0);
    EXPECT_TRUE(constellation->peekModel(uri));
    constellation.reset();
    EXPECT_EQ(freed, 1);
}

TEST(Lifetime, ElementsHeldAfterTheirModelDiesAreTombstones) {
    test::library::Book book;
    {
        Model model = Model::createTransientModel();
        book = test::library::Book::create(model);
    }
    EXPECT_FALSE(book);
    EXPECT_NE(book.get(), nullptr);
}

TEST(Lifetime, DestroyingAConstellationDestroysItsModels) {
    ModelConstellation constellation = ModelConstellation::create();
    Model a = Model::create(constellation);
    Model b = Model::create(constellation);
    test::library::Book book;
    {
        Transaction transaction = a->beginTransaction();
        book = test::library::Book::create(a);
        transaction.commit();
    }
    constellation->destroy();
    EXPECT_FALSE(constellation);
    EXPECT_FALSE(a);
    EXPECT_FALSE(b);
    EXPECT_FALSE(book);
    EXPECT_EQ(constellation->modelsCount(), 0u);
}

} // namespace
} // namespace kivra
