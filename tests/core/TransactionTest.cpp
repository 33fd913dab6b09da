#include "ModelSnapshot.hpp"
#include "Probes.hpp"

#include <library/Author.hpp>
#include <library/Book.hpp>
#include <library/Novel.hpp>
#include <library/Shelf.hpp>

#include <kivra/Messages.hpp>
#include <basalt/except/Exception.hpp>
#include <kivra/TransactionFactory.hpp>
#include <kivra/meta/TransactionOrigin.hpp>

#include <gtest/gtest.h>

#include <random>

namespace kivra::test::library {
namespace {

using R = TransactionResult;

class TransactionTest : public ::testing::Test {
protected:
    Model model = Model::createTransientModel();
};

TEST_F(TransactionTest, VotesOfNestedAndOuterHandles) {
    {
        Transaction outer = model->beginTransaction();
        Transaction inner = model->beginTransaction();
        EXPECT_EQ(inner.commit(), R::NotFinished);
        EXPECT_TRUE(model->isTransactionInProgress());
        EXPECT_EQ(outer.commit(), R::Committed);
        EXPECT_FALSE(model->isTransactionInProgress());
        EXPECT_EQ(outer.commit(), R::NotFinished); // a second commit
    }
    {
        // The outer handle first: the commit happens at the last vote.
        Transaction outer = model->beginTransaction();
        Transaction inner = model->beginTransaction();
        EXPECT_EQ(outer.commit(), R::NotFinished);
        EXPECT_EQ(inner.commit(), R::Committed);
    }
    {
        Transaction outer = model->beginRevertibleTransaction();
        Book::create(model);
        Transaction inner = model->beginTransaction();
        EXPECT_EQ(inner.rollBack(), R::NotFinished);
        EXPECT_TRUE(outer.isRollBackOnly());
        EXPECT_EQ(outer.commit(), R::RolledBack);
        EXPECT_EQ(model->elementCount(), 0u);
    }
    {
        // A nested handle dropped without a commit is a vote to roll back.
        Transaction outer = model->beginRevertibleTransaction();
        Book::create(model);
        { Transaction dropped = model->beginTransaction(); }
        EXPECT_EQ(outer.commit(), R::RolledBack);
    }
}

TEST_F(TransactionTest, ShallowTransactionsCannotRevert) {
    Transaction empty = model->beginTransaction();
    EXPECT_EQ(empty.rollBack(), R::NotFinished);

    // Nobody listens and it keeps no old values: nothing is even recorded.
    Transaction unobserved = model->beginTransaction();
    Book::create(model);
    EXPECT_EQ(unobserved.rollBack(), R::NotFinished);
    EXPECT_EQ(model->elementCount(), 1u);

    Transaction observed = model->beginTransaction();
    int firstChanges = 0;
    observed.addFirstChangeCallback([&] { ++firstChanges; });
    Book::create(model);
    Book::create(model);
    EXPECT_EQ(firstChanges, 1);
    EXPECT_EQ(observed.rollBack(), R::CannotRevert);
    EXPECT_EQ(model->elementCount(), 3u); // the changes stay
}

TEST_F(TransactionTest, DroppedOuterHandleRollsBack) {
    Book book = Book::create(model);
    book->setTitle(u"Dune");
    {
        Transaction transaction = model->beginRevertibleTransaction();
        book->setTitle(u"Emma");
        book->setTitle(u"Ulysses");
    }
    EXPECT_EQ(book->getTitle(), u"Dune"); // the first old value came back
    EXPECT_FALSE(model->isTransactionInProgress());
}

TEST_F(TransactionTest, RollBackRestoresIdentityContainmentAndBothEnds) {
    Shelf shelf = Shelf::create(model);
    Book book = Book::create(model);
    Author author = Author::create(model);
    Book loose = Book::create(model);
    shelf->setFeatured(book);
    book->setAuthor(author);
    ModelElement::Impl *const bookObject = book.get();
    auto const bookId = book->getUuid();
    ModelSnapshot const before = snapshot(model);

    Transaction transaction = model->beginRevertibleTransaction();
    book->destroy();
    Book created = Book::create(model);
    auto const createdId = created->getUuid();
    shelf->setFeatured(loose);     // a top-level element made contained
    author->setFavourite(created); // a far end moved to a new element
    EXPECT_EQ(transaction.rollBack(), R::RolledBack);

    EXPECT_EQ(describeDifference(before, snapshot(model)), "");
    EXPECT_EQ(before, snapshot(model));
    // The destroyed book is back as the same object; handles taken before are valid again.
    EXPECT_TRUE(book);
    EXPECT_EQ(model->findElement(bookId).get(), bookObject);
    EXPECT_EQ(shelf->getFeatured(), book);
    EXPECT_EQ(book->getShelf(), shelf);
    EXPECT_EQ(author->getFavourite(), book);
    EXPECT_TRUE(loose->isTopLevel());
    // The created element is gone, and its UUID is free again.
    EXPECT_FALSE(created);
    EXPECT_NO_THROW(Book::create(model, createdId));
}

TEST_F(TransactionTest, CreatedAndDestroyedInOneTransactionStaysGone) {
    Transaction transaction = model->beginRevertibleTransaction();
    Book book = Book::create(model);
    book->destroy();
    EXPECT_TRUE(model->isDestroyedInCurrentTransaction(book->getUuid()));
    EXPECT_EQ(transaction.rollBack(), R::RolledBack);
    EXPECT_FALSE(book);
    EXPECT_EQ(model->elementCount(), 0u);
}

TEST_F(TransactionTest, OriginsAndOrdinals) {
    model->trackLastSeenTransactionOrdinals();
    Transaction first = model->beginTransaction();
    meta::TransactionOrigin const origin = first.getOrigin();
    EXPECT_EQ(origin.getModel(), model->getUuid());
    EXPECT_EQ(origin.getLanguage(), meta::Language::CPlusPlus);
    Transaction nested = model->beginTransaction();
    EXPECT_EQ(nested.getOrigin(), origin); // a nested level carries its parent's origin
    nested.commit();
    first.commit();

    auto const factory = origin.getTransactionFactory();
    EXPECT_FALSE(model->isTransactionNew(factory, origin.getTransactionOrdinal()));
    EXPECT_TRUE(model->isTransactionNew(factory, origin.getTransactionOrdinal() + 5));
    EXPECT_TRUE(model->isTransactionNew(ElementImpl::generateNewUuid(), 0));
    Transaction second = model->beginTransaction();
    EXPECT_GT(second.getOrigin().getTransactionOrdinal(), origin.getTransactionOrdinal());
    EXPECT_NE(second.getOrigin().getTransactionId(), origin.getTransactionId());
}

// Random work on the sample metamodel: creations, sets, moves, association changes and
// destructions, all of which a deep roll-back must undo exactly.
class RandomWork {
public:
    RandomWork(Model model, unsigned seed) : model_(std::move(model)), random_(seed) {}

    void run(int steps) {
        for (int i = 0; i < steps; ++i)
            step();
    }

private:
    template <class H> H pick() {
        std::vector<H> candidates;
        for (ModelElement const &element : model_->getAllElements())
            if (auto *impl = dynamic_cast<typename H::Impl *>(element.get()))
                candidates.push_back(H::fromImpl(impl));
        if (candidates.empty())
            return {};
        return candidates[random_() % candidates.size()];
    }
    boost::uuids::uuid nextId() {
        boost::uuids::uuid id{};
        for (auto &byte : id.data)
            byte = static_cast<std::uint8_t>(random_());
        return id;
    }
    static bool holds(Book const &outer, Book const &inner) {
        for (ModelElement::Impl const *at = inner.get(); at; at = at->containerImpl())
            if (at == outer.get())
                return true;
        return false;
    }

    void step() {
        switch (random_() % 10) {
        case 0: Book::create(model_, nextId()); break;
        case 1: Novel::create(model_, nextId()); break;
        case 2:
            if (random_() % 2)
                Shelf::create(model_, nextId());
            else
                Author::create(model_, nextId());
            break;
        case 3:
            if (Book book = pick<Book>(); book.get())
                book->setTitle(std::u16string(1, char16_t(u'a' + random_() % 26)));
            break;
        case 4:
            if (Book book = pick<Book>(); book.get())
                random_() % 2 ? book->setSubtitle(basalt::ustring(u"x")) : book->setSubtitle(boost::none);
            break;
        case 5:
            if (Book book = pick<Book>(); book.get())
                book->setAuthor(random_() % 3 ? pick<Author>() : Author());
            break;
        case 6:
            if (Book book = pick<Book>(); book.get())
                book->setSequel(pick<Book>());
            break;
        case 7:
            if (Shelf shelf = pick<Shelf>(); shelf.get())
                if (Book book = pick<Book>(); !book.get() || !holds(book, Book()))
                    shelf->setFeatured(book);
            break;
        case 8:
            if (Book outer = pick<Book>(), inner = pick<Book>(); outer.get() && inner.get() && !holds(inner, outer))
                outer->setAppendix(inner);
            break;
        case 9:
            if (random_() % 3 == 0)
                if (ModelElement victim = pick<Book>(); victim.get())
                    victim->destroy();
            break;
        }
    }

    Model model_;
    std::mt19937 random_;
};

TEST(TransactionRollBack, RandomWorkIsUndoneExactly) {
    for (unsigned seed = 1; seed <= 40; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Model model = Model::createTransientModel();
        RandomWork(model, seed * 7919).run(60); // some state to start from
        ModelSnapshot const before = snapshot(model);

        Transaction transaction = model->beginRevertibleTransaction();
        RandomWork(model, seed).run(120);
        ASSERT_EQ(transaction.rollBack(), R::RolledBack);
        ASSERT_EQ(describeDifference(before, snapshot(model)), "");
    }
}

TEST(TransactionRollBack, CommittedWorkEqualsTheSameWorkDoneDirectly) {
    for (unsigned seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Model direct = Model::createTransientModel();
        RandomWork(direct, seed).run(150);

        Model transacted = Model::createTransientModel();
        Transaction transaction = transacted->beginRevertibleTransaction();
        RandomWork(transacted, seed).run(150);
        ASSERT_EQ(transaction.commit(), R::Committed);
        ASSERT_EQ(describeDifference(snapshot(direct), snapshot(transacted)), "");
    }
}

} // namespace
} // namespace kivra::test::library

namespace kivra::test::library {
namespace {

// An element destroyed and another made with its UUID in one transaction are two elements:
// the roll-back gives back the first, in its container, and forgets the second.
TEST_F(TransactionTest, RollBackTellsApartTwoElementsOfOneUuid) {
    Shelf shelf = Shelf::create(model);
    Book original = Book::create(model);
    shelf->setFeatured(original);
    auto const id = original->getUuid();
    ModelSnapshot const before = snapshot(model);

    Transaction transaction = model->beginRevertibleTransaction();
    original->destroy();
    Book namesake = Book::create(model, id);
    shelf->setFeatured(namesake);
    EXPECT_EQ(transaction.rollBack(), R::RolledBack);

    EXPECT_EQ(describeDifference(before, snapshot(model)), "");
    EXPECT_TRUE(original);
    EXPECT_FALSE(namesake);
    EXPECT_EQ(model->findElement(id).get(), original.get());
    EXPECT_EQ(shelf->getFeatured(), original);
    EXPECT_EQ(original->getShelf(), shelf);
    EXPECT_FALSE(original->isTopLevel());
}

// The usage account comes back with the elements: a model never holds both kinds.
TEST_F(TransactionTest, RollBackRestoresTheModelsContent) {
    {
        Transaction transaction = model->beginRevertibleTransaction();
        Book::create(model);
        EXPECT_EQ(model->getModelContent(), ModelContent::InferredReified);
        EXPECT_EQ(transaction.rollBack(), R::RolledBack);
    }
    EXPECT_EQ(model->getModelContent(), ModelContent::Undetermined);

    Book only = Book::create(model);
    {
        Transaction transaction = model->beginRevertibleTransaction();
        only->destroy();
        EXPECT_EQ(model->getModelContent(), ModelContent::Undetermined);
        EXPECT_EQ(transaction.rollBack(), R::RolledBack);
    }
    EXPECT_EQ(model->getModelContent(), ModelContent::InferredReified);
    EXPECT_THROW(test::ReflectiveNote::create(model), basalt::except::IUserException);
}

} // namespace
} // namespace kivra::test::library
