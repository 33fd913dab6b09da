#include <library/Author.hpp>
#include <library/Book.hpp>
#include <library/Novel.hpp>
#include <library/Shelf.hpp>

#include <kivra/ElementId.hpp>
#include <kivra/ElementMap.hpp>
#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/ModelConstellation.hpp>
#include <kivra/SubsettedElementSet.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/StandardTypes.hpp>

#include <basalt/i18n/Unicode.hpp>

#include <boost/uuid/uuid_io.hpp>

#include <gtest/gtest.h>

namespace kivra::test::library {
namespace {

class ElementMapTest : public ::testing::Test {
protected:
    Book book(std::u16string const &title, int pages = 100) {
        Book created = Book::create(model);
        created->setTitle(title);
        created->setPages(pages);
        return created;
    }
    Book proxyOf(boost::uuids::uuid const &id, boost::optional<basalt::ustring> const &modelId = boost::none) {
        return Book::createProxy(
            model, ProxyId(u"uuid", basalt::i18n::utf8_to_ustring(boost::uuids::to_string(id)), modelId));
    }
    static Value title(basalt::ustring const &text) { return Value(meta::StandardTypes::stringMeta, text); }

    Model model = Model::create(ModelConstellation());
};

// A collection set whole through reflection is one change: when an entry fails half-way,
// here a second book of one title, the map keeps what it held and its far ends theirs,
// also outside a transaction, where a single change would not be kept for a roll-back.
TEST_F(ElementMapTest, AFailedAssignmentOfAWholeMapChangesNothing) {
    Shelf shelf = Shelf::create(model);
    Author author = Author::create(model);
    Book const kept = book(u"k");
    shelf->getCatalogueMutable().insert(kept);
    for (char16_t const *each : {u"a", u"b", u"a"})
        author->getBooksMutable().push_back(book(each));
    using Tag = ModelElement::Impl::ReflectionPrivateTag;
    Value const books = author->getPropertyValue(Author::Impl::booksProperty(), Tag::PUBLIC_ACCESS);
    EXPECT_THROW(shelf->setPropertyValue(Shelf::Impl::catalogueProperty(), books, Tag::PUBLIC_ACCESS),
                 Error<messages::UniquenessConstraint>);
    EXPECT_EQ(shelf->getCatalogue().getAllValues(), std::vector<ModelElement>{kept});
    EXPECT_EQ(kept->getCatalogued(), shelf);
    for (Book const &each : author->getBooks())
        EXPECT_FALSE(each->getCatalogued());
}

// Each collision rule, seen from both ends of the association.
TEST_F(ElementMapTest, AKeyHeldByAnotherElementFollowsTheCollisionRule) {
    Shelf shelf = Shelf::create(model);
    Book first = book(u"Dune");
    Book second = book(u"Dune");
    auto &catalogue = shelf->getCatalogueMutable();
    catalogue.insert(first);
    catalogue.insert(first); // the element itself: nothing, whatever the rule
    EXPECT_EQ(catalogue.size(), 1u);
    EXPECT_EQ(first->getCatalogued(), shelf);

    EXPECT_THROW(catalogue.insert(second), Error<messages::UniquenessConstraint>);
    EXPECT_FALSE(model->isTransactionInProgress()) << "a refused insert ends the transaction it opened";
    catalogue.insert(second, CollisionResolution::KeepExisting);
    EXPECT_EQ(catalogue.at(u"Dune"), first);
    EXPECT_FALSE(second->getCatalogued().get());

    catalogue.insert(second, CollisionResolution::Replace);
    EXPECT_EQ(catalogue.size(), 1u);
    EXPECT_EQ(catalogue.at(u"Dune"), second);
    EXPECT_EQ(second->getCatalogued(), shelf);
    EXPECT_FALSE(first->getCatalogued().get()) << "the replaced element is out of the far end's view";

    // The generic view refuses another class and reads by key.
    auto &view = static_cast<GenericMapInterface &>(*catalogue.getGenericInterface());
    EXPECT_THROW(view.genericAdd(Author::create(model)), Error<messages::CannotAddIncompatibleTypes>);
    EXPECT_EQ(view.genericAt(title(u"Dune")), second);
    EXPECT_FALSE(view.genericAt(title(u"Absent")).get());
    EXPECT_EQ(view.genericKeys(), std::vector<Value>{title(u"Dune")});
    EXPECT_EQ(view.genericKeyType(), meta::Type(meta::StandardTypes::stringMeta));
}

// Either end may link or unlink, and a destroyed element leaves the map.
TEST_F(ElementMapTest, BothEndsStayConsistent) {
    Shelf shelf = Shelf::create(model);
    Shelf other = Shelf::create(model);
    Book dune = book(u"Dune");
    Book emma = book(u"Emma");
    dune->setCatalogued(shelf);
    shelf->getCatalogueMutable().insert(emma);
    EXPECT_EQ(shelf->getCatalogue().getAllValues(), (std::vector<ModelElement>{dune, emma})) << "key order";
    EXPECT_TRUE(shelf->getCatalogue().contains(dune));

    dune->setCatalogued(other); // moves between containers
    EXPECT_FALSE(shelf->getCatalogue().contains(dune));
    EXPECT_EQ(other->getCatalogue().at(u"Dune"), dune);

    shelf->getCatalogueMutable().erase(emma);
    EXPECT_FALSE(emma->getCatalogued().get());
    other->getCatalogueMutable().insert(emma);
    other->getCatalogueMutable().erase(other->getCatalogue().begin(), other->getCatalogue().end());
    EXPECT_FALSE(dune->getCatalogued().get());
    EXPECT_FALSE(emma->getCatalogued().get());

    shelf->getCatalogueMutable().insert(dune);
    dune->destroy();
    EXPECT_TRUE(shelf->getCatalogue().empty());
}

// The composite multimap: children under a shared key, made top level when they leave.
TEST_F(ElementMapTest, AMultimapHoldsElementsUnderASharedKey) {
    Author author = Author::create(model);
    auto &drafts = author->getDraftsMutable();
    std::vector<Book> books{book(u"a", 300), book(u"b", 300), book(u"c", 300), book(u"d", 50)};
    for (Book const &each : books)
        drafts.insert(each);
    drafts.insert(books[0]);
    EXPECT_EQ(drafts.size(), 4u);
    EXPECT_EQ(books[1]->container(), author);

    auto &view = static_cast<GenericMultimapInterface &>(*drafts.getGenericInterface());
    EXPECT_EQ(view.genericFind(Value(meta::StandardTypes::integerMeta, std::int32_t(300))).size(), 3u);
    EXPECT_EQ(view.genericKeys().size(), 2u);

    books[0]->setPages(50); // a new key, same container
    EXPECT_EQ(drafts.find(50).size(), 2u);
    EXPECT_EQ(books[0]->container(), author);
    drafts.erase(books[1]);
    EXPECT_FALSE(books[1]->container().get());
    EXPECT_TRUE(books[1]->isTopLevel());

    author->destroy();
    EXPECT_FALSE(books[2]->isValid()) << "children go with their container";
}

// Proxies have no key: they wait aside, an equal id once, and a composite one stays local.
TEST_F(ElementMapTest, ProxiesWaitAsideAndAContainmentStaysInItsModel) {
    Shelf shelf = Shelf::create(model);
    boost::uuids::uuid const id = ElementImpl::generateNewUuid();
    shelf->getCatalogueMutable().insert(proxyOf(id));
    shelf->getCatalogueMutable().insert(proxyOf(id));
    EXPECT_EQ(shelf->getCatalogue().unresolvedSize(), 1u);
    EXPECT_EQ(shelf->getCatalogue().size(), 0u);
    EXPECT_FALSE(shelf->getCatalogue().empty());

    Author author = Author::create(model);
    EXPECT_THROW(author->getDraftsMutable().insert(proxyOf(id, basalt::ustring(u"http://elsewhere"))),
                 Error<messages::CannotCreateCrossModelAssociation>);
    EXPECT_TRUE(author->getDrafts().empty());

    // The store-only clear of the generic view empties entries and side table alike and
    // leaves every far end as it was, in a map as in a composite multimap.
    Book dune = book(u"Dune");
    shelf->getCatalogueMutable().insert(dune);
    shelf->getCatalogueMutable().getGenericInterface()->genericBasicClear();
    EXPECT_TRUE(shelf->getCatalogue().empty());
    EXPECT_EQ(dune->getCatalogued(), shelf);
    Book draft = book(u"draft", 10);
    author->getDraftsMutable().insert(draft);
    author->getDraftsMutable().getGenericInterface()->genericBasicClear();
    EXPECT_TRUE(author->getDrafts().empty());
    EXPECT_EQ(draft->container(), author);
}

// The view shows the superset's entries of its class at once, and adds through it.
TEST_F(ElementMapTest, ASubsetViewIsLiveAndFiltersWhatItAdds) {
    Shelf shelf = Shelf::create(model);
    auto &catalogue = shelf->getCatalogueMutable();
    using Catalogue = std::remove_reference_t<decltype(catalogue)>;
    SubsettedElementSet<Novel, Catalogue> novels(catalogue);
    SubsettedElementSet<Novel, Catalogue> longNovels(
        catalogue, [](ModelElement const &element) { return Novel::fromImpl(static_cast<Novel::Impl *>(element.get()))->getPages() > 200; });
    catalogue.insert(book(u"Dune"));
    EXPECT_TRUE(novels.empty());

    Novel emma = Novel::create(model);
    emma->setTitle(u"Emma");
    catalogue.insert(emma);
    EXPECT_EQ(novels.getAllValues(), std::vector<ModelElement>{emma});
    EXPECT_TRUE(longNovels.empty());

    GenericCollectionInterface &view = *longNovels.getGenericInterface();
    EXPECT_THROW(view.genericAdd(book(u"Ulysses", 700)), Error<messages::CannotAddIncompatibleTypes>);
    Novel brief = Novel::create(model);
    brief->setTitle(u"Brief");
    EXPECT_THROW(view.genericAdd(brief), Error<messages::CannotAddIncompatibleObjectSubset>);
    Novel saga = Novel::create(model);
    saga->setTitle(u"Saga");
    saga->setPages(900);
    view.genericAdd(saga);
    EXPECT_EQ(saga->getCatalogued(), shelf) << "added to the superset, with association";
    view.genericRemove(emma); // refused by the predicate: left alone
    EXPECT_TRUE(catalogue.contains(emma));
    EXPECT_EQ(novels.getGenericInterface()->genericSize(), 2u);
    EXPECT_EQ(catalogue.size(), 3u);
}

} // namespace
} // namespace kivra::test::library
