#include "Probes.hpp"

#include <library/Book.hpp>

#include <kivra/Messages.hpp>
#include <kivra/ModelConstellation.hpp>
#include <kivra/WorkQueue.hpp>

#include <gtest/gtest.h>

#include <optional>
#include <vector>

namespace kivra {
namespace {

TEST(WorkQueue, UpdateWaitsForTheOutermostCommit) {
    Model model = Model::createTransientModel();
    std::vector<int> ran;
    model->addToWorkQueue([&](Model const &) { ran.push_back(1); });
    EXPECT_EQ(ran, std::vector<int>{1}); // no transaction: at once

    {
        Transaction outer = model->beginTransaction();
        Transaction inner = model->beginTransaction();
        model->addToWorkQueue([&](Model const &m) {
            EXPECT_EQ(m, model);
            EXPECT_FALSE(m->isTransactionInProgress());
            ran.push_back(2);
        });
        inner.commit();
        EXPECT_EQ(ran.size(), 1u);
        outer.commit();
    }
    EXPECT_EQ(ran, (std::vector<int>{1, 2}));
}

TEST(WorkQueue, FailingUpdateDoesNotStopTheNext) {
    Model model = Model::createTransientModel();
    bool second = false;
    Transaction transaction = model->beginTransaction();
    model->addToWorkQueue([](Model const &) { throw std::runtime_error("broken"); });
    model->addToWorkQueue([&](Model const &) { second = true; });
    transaction.commit();
    EXPECT_TRUE(second);
}

TEST(WorkQueue, UpdateThatOpensATransactionHoldsUpTheRest) {
    Model model = Model::createTransientModel();
    Transaction kept;
    int later = 0;
    Transaction transaction = model->beginTransaction();
    model->addToWorkQueue([&](Model const &m) { kept = m->beginTransaction(); });
    model->addToWorkQueue([&](Model const &) { ++later; });
    transaction.commit();
    EXPECT_EQ(later, 0);
    kept.commit(); // its end runs what waited
    EXPECT_EQ(later, 1);
}

TEST(WorkQueue, ConstellationModelsShareOneQueue) {
    ModelConstellation constellation = ModelConstellation::create();
    Model a = Model::create(constellation);
    Model b = Model::create(constellation);
    int ran = 0;
    Transaction transaction = a->beginTransaction();
    b->addToWorkQueue([&](Model const &) { ++ran; }); // waits: a member is in a transaction
    EXPECT_EQ(ran, 0);
    transaction.commit();
    EXPECT_EQ(ran, 1);
}

TEST(WorkQueue, DestroyedModelDropsItsWork) {
    Model model = Model::createTransientModel();
    int ran = 0;
    {
        Transaction transaction = model->beginTransaction();
        model->addToWorkQueue([&](Model const &) { ++ran; });
        model->destroy();
    }
    model->addToWorkQueue([&](Model const &) { ++ran; });
    EXPECT_EQ(ran, 0);
}

// A member's work waits on its constellation's queue, which outlives the member: work of a
// member that is destroyed meanwhile is dropped there too, also when the destruction runs
// from an update ahead of it, whose own commit would otherwise run it in the middle.
TEST(WorkQueue, AConstellationMemberDestroyedDropsItsWaitingWork) {
    ModelConstellation constellation = ModelConstellation::create();
    Model a = Model::create(constellation);
    Model b = Model::create(constellation);
    Model c = Model::create(constellation);
    std::vector<char> ran;
    {
        Transaction transaction = a->beginTransaction();
        b->addToWorkQueue([&](Model const &) { ran.push_back('b'); });
        b->destroy();
        transaction.commit();
    }
    EXPECT_TRUE(ran.empty());

    {
        Transaction transaction = a->beginTransaction();
        a->addToWorkQueue([&](Model const &) {
            ran.push_back('a');
            c->destroy();
        });
        c->addToWorkQueue([&](Model const &m) {
            ran.push_back('c');
            test::library::Book::create(m); // would be lost with the dying model's memory
        });
        a->addToWorkQueue([&](Model const &) { ran.push_back('A'); });
        transaction.commit();
    }
    EXPECT_EQ(ran, (std::vector<char>{'a', 'A'}));
}

TEST(Freezer, FreezesAddUpAndThawsNestOnce) {
    Model model = Model::createTransientModel();
    auto first = model->freeze();
    {
        auto second = model->freeze();
        EXPECT_TRUE(model->isFrozen());
    }
    EXPECT_TRUE(model->isFrozen()); // one freezer is still there
    EXPECT_THROW(test::library::Book::create(model), Error<messages::ModelFrozen>);
    {
        auto thawed = first.thaw();
        auto again = first.thaw();
        EXPECT_FALSE(model->isFrozen());
        EXPECT_NO_THROW(test::library::Book::create(model));
        again.deactivate();
        EXPECT_FALSE(model->isFrozen()); // the outer thaw still holds
    }
    EXPECT_TRUE(model->isFrozen());
    first.deactivate();
    EXPECT_FALSE(model->isFrozen());
    EXPECT_FALSE(first);
}

// Only the freezer that holds the model counts: a moved-from one, or one whose model was
// destroyed meanwhile, leaves the count alone.
TEST(Freezer, MovedFromOrOutlivingItsModelLeavesTheCountAlone) {
    Model model = Model::createTransientModel();
    std::optional<Model::Freezer> freezer(model->freeze());
    Model::Freezer moved = std::move(*freezer);
    EXPECT_FALSE(freezer->isActive());
    EXPECT_TRUE(moved.isActive());
    freezer.reset();
    EXPECT_TRUE(model->isFrozen()); // the moved-to freezer still holds
    EXPECT_THROW(test::library::Book::create(model), Error<messages::ModelFrozen>);

    model->destroy();
    moved.deactivate();
    EXPECT_FALSE(moved);
    EXPECT_TRUE(model->isFrozen()); // a destroyed model's count is not touched
}

} // namespace
} // namespace kivra
