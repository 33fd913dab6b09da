#include "Probes.hpp"

#include <library/Author.hpp>
#include <library/Book.hpp>

#include <kivra/ElementSequence.hpp>
#include <kivra/Listener.hpp>
#include <kivra/PrimitiveCollection.hpp>
#include <kivra/ReportData.hpp>

#include <kivra/ModelConstellation.hpp>
#include <kivra/WorkQueue.hpp>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

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

// An element handle is no hold on its model: everything goes with the last outside handle,
// in spite of references between the models, and a held element is a tombstone.
TEST(Lifetime, LastOutsideHandleFreesEverything) {
    int freed = 0;
    test::library::Book kept;
    {
        ModelConstellation constellation = ModelConstellation::create(tracedFactory(freed));
        Model a = Model::create(constellation);
        Model b = Model::create(constellation);
        Transaction transaction = a->beginTransaction();
        test::library::Book one = test::library::Book::create(a);
        test::library::Book two = test::library::Book::create(b);
        one->setSequel(two);
        two->setSequel(one);
        one->setAuthor(test::library::Author::create(b)); // both ends, across the models
        transaction.commit();
        kept = one;
    }
    EXPECT_EQ(freed, 1);
    EXPECT_FALSE(kept);
    kept.reset();
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

// A listener that keeps its last report must not keep the model: once the last handle
// goes, the model is destroyed, the listener told and deleted, and the kept report still
// answers about its elements.
TEST(Lifetime, AKeptReportDoesNotKeepItsModel) {
    struct Keeper : Listener {
        Keeper(std::shared_ptr<ReportData> &kept, int &removed, bool &deleted)
            : kept(kept), removed(removed), deleted(deleted) {}
        ~Keeper() override { deleted = true; }
        void transactionCommitted(std::shared_ptr<ReportData> const &report) { kept = report; }
        void transactionCanceled(bool, std::shared_ptr<ReportData> const &) {}
        void listenerRemoved() override { ++removed; }
        std::shared_ptr<ReportData> &kept;
        int &removed;
        bool &deleted;
    };
    std::shared_ptr<ReportData> kept;
    int removed = 0;
    bool deleted = false;
    test::library::Book book;
    {
        Model model = Model::createTransientModel();
        addOwnedListener<ListenerRole::Observer>(model, std::make_unique<Keeper>(kept, removed, deleted));
        Transaction creation = model->beginTransaction();
        book = test::library::Book::create(model);
        creation.commit();
        Transaction transaction = model->beginTransaction();
        book->setTitle(u"Emma");
        transaction.commit();
        ASSERT_TRUE(kept);
        EXPECT_TRUE(kept->getModel());
    }
    EXPECT_EQ(removed, 1);
    EXPECT_TRUE(deleted);
    EXPECT_FALSE(book);
    ASSERT_TRUE(kept);
    EXPECT_FALSE(kept->getModel());
    ASSERT_EQ(kept->getModified().size(), 1u);
    EXPECT_EQ(kept->getModified()[0].get(), book.get());
    EXPECT_TRUE(kept->isChanged(book, test::library::Book::Impl::titleProperty()));
    // The kept report outlives the book's last other handle and frees everything after.
    book.reset();
    kept.reset();
}

// A tombstone whose model is gone is still a safe value: setting it on a two-way reference
// tells no far end, and it reads as no reference, being of another model.
TEST(Lifetime, AReferenceToATombstoneOfAFreedModelTouchesNoFreedMemory) {
    ModelConstellation constellation = ModelConstellation::create();
    Model home = Model::create(constellation);
    test::library::Author gone;
    {
        Model other = Model::create(constellation);
        Transaction transaction = other->beginTransaction();
        gone = test::library::Author::create(other);
        transaction.commit();
        other->destroy();
    }
    ASSERT_FALSE(gone);
    EXPECT_FALSE(gone->getModel());
    Transaction transaction = home->beginRevertibleTransaction();
    test::library::Book book = test::library::Book::create(home);
    book->setAuthor(gone);
    EXPECT_FALSE(book->getAuthor().get());
    EXPECT_FALSE(gone->getFavourite().get());
    book->setAuthor(gone);
    book->setAuthor({});
    transaction.rollBack();
    EXPECT_FALSE(book);
}

// A moved element lives in the memory of the model it came from but names the one it went
// to: when that model dies first, the tombstone must still find its shell, to answer for
// its model and to make the collections it was never asked for.
TEST(Lifetime, AMovedElementKeepsTheShellOfTheModelItWentTo) {
    Model source = Model::createTransientModel();
    Model target = Model::createTransientModel();
    test::library::Author movedTwice;
    test::library::Author movedOnce;
    {
        Transaction transaction = source->beginTransaction();
        movedTwice = test::library::Author::create(source);
        transaction.commit();
    }
    source->moveAllContentsTo(target);
    {
        Transaction transaction = target->beginTransaction();
        movedOnce = test::library::Author::create(target);
        transaction.commit();
    }
    {
        Model third = Model::createTransientModel();
        target->moveAllContentsTo(third);
        EXPECT_EQ(movedTwice->getModel(), third);
    }
    for (test::library::Author const &author : {movedTwice, movedOnce}) {
        ASSERT_FALSE(author);
        EXPECT_FALSE(author->getModel());
        EXPECT_TRUE(author->getBooks().empty());
        EXPECT_TRUE(author->getRatings().empty());
    }
}

// The end of a model large enough to walk its elements in batches: what the user still
// holds stays as a shell that only the user's handle keeps, every reference among the
// elements having let go, and everything else is freed (which the sanitizers check).
TEST(Lifetime, ElementsHeldAcrossTheEndOfALargeModelKeepOnlyTheUsersReference) {
    using test::library::Author;
    using test::library::Book;
    std::vector<Book> keptBooks;
    std::vector<Author> keptAuthors;
    {
        Model model = Model::createTransientModel();
        Transaction transaction = model->beginTransaction();
        std::vector<Author> authors;
        for (int i = 0; i < 150; ++i)
            authors.push_back(Author::create(model));
        for (int i = 0; i < 3000; ++i) {
            Book book = Book::create(model);
            book->getCoauthorsMutable().push_back(authors[i % 150]);
            book->getCoauthorsMutable().push_back(authors[(i * 7 + 3) % 150]);
            authors[(i * 11) % 150]->getBooksMutable().push_back(book);
            if (i % 500 == 0)
                keptBooks.push_back(book);
        }
        transaction.commit();
        for (int i = 0; i < 150; i += 50)
            keptAuthors.push_back(authors[i]);
    }
    for (Book const &book : keptBooks) {
        EXPECT_FALSE(book);
        EXPECT_EQ(book->referenceCount(), 1u);
    }
    for (Author const &author : keptAuthors) {
        EXPECT_FALSE(author);
        EXPECT_EQ(author->referenceCount(), 1u);
    }
}

// The model's last handle can go while its transaction is open: the transaction then
// holds it, and what the writer makes meanwhile (elements, collections) holds its memory
// until the shell goes with the last of them, tombstones' collections made later included.
TEST(Lifetime, WhatATransactionMakesAfterTheLastModelHandleHoldsTheShell) {
    using test::library::Author;
    using test::library::Book;
    for (bool const commit : {true, false}) {
        std::vector<Author> authors;
        std::vector<Book> books;
        {
            Model model = Model::createTransientModel();
            Transaction transaction = model->beginRevertibleTransaction();
            authors.push_back(Author::create(model));
            model.reset();
            for (int i = 0; i < 3; ++i)
                books.push_back(Book::create(authors[0]->getModel()));
            books[0]->getCoauthorsMutable().push_back(authors[0]);
            authors[0]->getRatingsMutable().push_back(5);
            EXPECT_TRUE(books[1]->getTags().empty());
            if (commit)
                transaction.commit();
        }
        for (Book const &book : books) {
            EXPECT_FALSE(book);
            EXPECT_TRUE(book->getChapters().empty());
        }
        EXPECT_TRUE(authors[0]->getBooks().empty());
        books.clear();
        authors.clear();
    }
}

// Moved elements hold the shell of the model whose memory they live in, and may let go of
// it from any thread once both models are gone.
TEST(Lifetime, MovedElementsLetGoOfBothShellsFromOtherThreads) {
    using test::library::Author;
    using test::library::Book;
    std::vector<std::vector<Book>> books(4);
    {
        Model target = Model::createTransientModel();
        Model source = Model::createTransientModel();
        Transaction transaction = source->beginTransaction();
        Author const author = Author::create(source);
        for (int i = 0; i < 200; ++i) {
            books[i % 4].push_back(Book::create(source));
            books[i % 4].back()->getCoauthorsMutable().push_back(author);
        }
        transaction.commit();
        source->moveAllContentsTo(target);
        Transaction more = target->beginTransaction();
        for (auto const &group : books)
            for (Book const &book : group)
                book->getTagsMutable().push_back(u"moved");
        more.commit();
    }
    std::vector<std::thread> threads;
    for (auto &group : books)
        threads.emplace_back([&group] {
            for (Book const &book : group)
                EXPECT_TRUE(book->getChapters().empty());
            group.clear();
        });
    for (std::thread &thread : threads)
        thread.join();
}

} // namespace
} // namespace kivra
