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

} // namespace
} // namespace kivra::test::library
