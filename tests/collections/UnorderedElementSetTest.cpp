#include "ModelSnapshot.hpp"

#include <library/Author.hpp>
#include <library/Book.hpp>
#include <library/Shelf.hpp>

#include <kivra/ElementId.hpp>
#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/ModelConstellation.hpp>

#include <basalt/i18n/Unicode.hpp>

#include <boost/uuid/uuid_io.hpp>

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <set>

namespace kivra::test::library {
namespace {

class UnorderedElementSetTest : public ::testing::Test {
protected:
    Book proxyOf(boost::uuids::uuid const &id, boost::optional<basalt::ustring> const &modelId = boost::none) {
        return Book::createProxy(
            model, ProxyId(u"uuid", basalt::i18n::utf8_to_ustring(boost::uuids::to_string(id)), modelId));
    }

    Model model = Model::create(ModelConstellation());
};

// A proxy has no hash of its own: it waits in the side table, out of sight of the size.
TEST_F(UnorderedElementSetTest, ProxiesWaitInTheSideTableUntilTheyResolve) {
    Shelf shelf = Shelf::create(model);
    Book book = Book::create(model);
    boost::uuids::uuid const id = ElementImpl::generateNewUuid();
    auto &set = shelf->getRecommendedMutable();
    set.insert(proxyOf(id));
    set.insert(proxyOf(id)); // an equal id keeps the first
    GenericCollectionInterface const &view = *set.getGenericInterface();
    EXPECT_EQ(view.genericSize(), 0u);
    EXPECT_FALSE(view.genericEmpty());
    EXPECT_EQ(set.unresolvedSize(), 1u);

    set.insert(book);
    EXPECT_EQ(set.getAllValues(), std::vector<ModelElement>{book});
    std::vector<ModelElement> const all = set.getAllValuesAndProxies();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_TRUE(all.back()->isProxy());

    Book const real = Book::create(model, id);
    shelf->getRecommended(); // an access resolves
    EXPECT_EQ(set.size(), 2u);
    EXPECT_EQ(set.unresolvedSize(), 0u);
    EXPECT_TRUE(set.contains(real));
}

// Across an association the far end must confirm before a proxy leaves the table.
TEST_F(UnorderedElementSetTest, AProxyResolvesOnlyWhenTheFarEndConfirms) {
    Author author = Author::create(model);
    boost::uuids::uuid const id = ElementImpl::generateNewUuid();
    author->getCoauthoredMutable().insert(proxyOf(id));
    Book const real = Book::create(model, id);
    EXPECT_EQ(author->getCoauthored().size(), 0u) << "the book does not name the author";
    EXPECT_EQ(author->getCoauthored().unresolvedSize(), 1u);
}

TEST_F(UnorderedElementSetTest, RollBackRestoresTheSetAndItsSideTable) {
    Shelf shelf = Shelf::create(model);
    Author author = Author::create(model);
    std::vector<Book> books;
    for (int i = 0; i < 10; ++i) {
        books.push_back(Book::create(model));
        shelf->getRecommendedMutable().insert(books.back());
        author->getCoauthoredMutable().insert(books.back());
    }
    shelf->getRecommendedMutable().insert(proxyOf(ElementImpl::generateNewUuid()));
    ModelSnapshot const before = snapshot(model, Identity::Object);
    {
        Transaction transaction = model->beginRevertibleTransaction();
        shelf->getRecommendedMutable().clear();
        shelf->getRecommendedMutable().insert(proxyOf(ElementImpl::generateNewUuid()));
        author->getCoauthoredMutable().erase(books[3]);
        books[4]->destroy();
        EXPECT_EQ(transaction.rollBack(), TransactionResult::RolledBack);
    }
    EXPECT_EQ(describeDifference(before, snapshot(model, Identity::Object)), "");
    EXPECT_EQ(shelf->getRecommended().unresolvedSize(), 1u);
    EXPECT_EQ(books[3]->getCoauthors().front(), author);
}

TEST_F(UnorderedElementSetTest, WrongTypesAreRefusedOnlyThroughTheGenericView) {
    Shelf shelf = Shelf::create(model);
    GenericCollectionInterface &view = *shelf->getRecommendedMutable().getGenericInterface();
    EXPECT_THROW(view.genericAdd(Author::create(model)), Error<messages::CannotAddIncompatibleTypes>);
    EXPECT_THROW(view.genericRemove(Shelf::create(model)), Error<messages::CannotAddIncompatibleTypes>);
    EXPECT_TRUE(view.genericEmpty());
    EXPECT_TRUE(shelf->getRecommended().empty());
}

// While a document is read, both ends of a many-to-many pair arrive by themselves; a
// single-valued far end is still kept.
TEST_F(UnorderedElementSetTest, AParseLeavesTheFarEndOfAManyToManyPairAlone) {
    Book book = Book::create(model);
    Author author = Author::create(model);
    Author writer = Author::create(model);
    {
        auto parse = model->startParse();
        book->getCoauthorsMutable().push_back(author);
        writer->getBooksMutable().push_back(book);
    }
    EXPECT_TRUE(author->getCoauthored().empty());
    EXPECT_EQ(book->getWriter(), writer);
    book->getCoauthorsMutable().push_back(writer);
    EXPECT_TRUE(writer->getCoauthored().contains(book)) << "outside a parse the far end hears";
}

// The table behind the set against a plain set, through growth and removals that pull
// runs back; UUIDs that share their first half must still spread.
TEST_F(UnorderedElementSetTest, TheTableAgreesWithAPlainSetThroughAnyMixOfChanges) {
    std::vector<Book> pool;
    for (std::uint64_t i = 0; i < 300; ++i) {
        boost::uuids::uuid id = ElementImpl::generateNewUuid();
        if (i % 2) { // hand-numbered: one shared first half
            std::memset(id.data, 0x11, 8);
            std::memcpy(id.data + 8, &i, sizeof i);
        }
        pool.push_back(Book::create(model, id));
    }
    detail::ElementHashSet table;
    std::set<ModelElement::Impl *> expected;
    std::mt19937 random(7);
    for (int step = 0; step < 5000; ++step) {
        Book const &book = pool[random() % pool.size()];
        if (random() % 3) {
            EXPECT_EQ(table.insert(book).second, expected.insert(book.get()).second);
        } else {
            EXPECT_EQ(table.erase(book), expected.erase(book.get()) == 1);
        }
        if (step % 500 == 0) {
            detail::ElementHashSet const copy = table;
            std::set<ModelElement::Impl *> seen;
            for (ModelElement const &entry : copy)
                seen.insert(entry.get());
            ASSERT_EQ(seen, expected);
        }
    }
    for (Book const &book : pool)
        ASSERT_EQ(table.contains(book), expected.contains(book.get()));
    EXPECT_EQ(table.size(), expected.size());
}

} // namespace
} // namespace kivra::test::library
