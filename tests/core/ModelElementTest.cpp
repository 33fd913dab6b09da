#include "Probes.hpp"

#include <library/Author.hpp>
#include <library/Book.hpp>
#include <library/Novel.hpp>
#include <library/Shelf.hpp>

#include <kivra/ElementId.hpp>
#include <kivra/Messages.hpp>
#include <kivra/ModelConstellation.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/Property.hpp>

#include <basalt/i18n/Unicode.hpp>

#include <boost/uuid/uuid_io.hpp>

#include <gtest/gtest.h>

namespace kivra::test::library {
namespace {

using Tag = ModelElement::Impl::ReflectionPrivateTag;

class ModelElementTest : public ::testing::Test {
protected:
    std::vector<ModelElement> topLevel() const { return model->getTopLevelElements(); }
    bool isTopLevel(ModelElement const &element) const {
        auto const all = topLevel();
        return std::find(all.begin(), all.end(), element) != all.end();
    }

    Model model = Model::createTransientModel();
};

// A single composite seen from the container's end: a child replaced there is top level
// again, one destroyed leaves the feature empty, and the container's destruction takes the
// subtree and tells the far ends.
TEST_F(ModelElementTest, AContainerLetsGoOfAChildItReplacesOrLoses) {
    Shelf shelf = Shelf::create(model);
    Book book = Book::create(model);
    Book other = Book::create(model);
    shelf->setFeatured(book);
    shelf->setFeatured(other);
    EXPECT_TRUE(book->isTopLevel());
    EXPECT_TRUE(isTopLevel(book));
    EXPECT_FALSE(book->getShelf());
    other->destroy();
    EXPECT_FALSE(shelf->getFeatured());

    Book appendix = Book::create(model);
    Author author = Author::create(model);
    shelf->setFeatured(book);
    book->setAppendix(appendix);
    book->setAuthor(author);
    shelf->destroy();
    EXPECT_FALSE(book);
    EXPECT_FALSE(appendix);
    EXPECT_FALSE(author->getFavourite());
    EXPECT_EQ(model->elementCount(), 1u);
    shelf->destroy(); // twice is harmless
}

// A single reference that is its own opposite may name its owner: the element is then its
// own far end, and a pair with another element it joins or leaves keeps both ends.
TEST_F(ModelElementTest, AnElementThatIsItsOwnPartnerKeepsBothEndsOfEachPair) {
    Author const ann = Author::create(model);
    Author const bob = Author::create(model);
    ann->setPartner(bob);
    ann->setPartner(ann);
    EXPECT_EQ(ann->getPartner(), ann);
    EXPECT_FALSE(bob->getPartner());
    bob->setPartner(ann);
    EXPECT_EQ(ann->getPartner(), bob);
    EXPECT_EQ(bob->getPartner(), ann);
    ann->setPartner(ann);
    EXPECT_FALSE(bob->getPartner());
}

TEST_F(ModelElementTest, CrossModelReferencesFollowTheModelKinds) {
    Book local = Book::create(model);
    auto registry = meta::MetaRegistry::getInstance()->getMetaRegistryModel();
    Transaction transaction = registry->beginTransaction();
    Book published = Book::create(registry.get());
    Author famous = Author::create(registry.get());

    // Into the registry: one way only. Out of a transient model: one way only.
    EXPECT_NO_THROW(local->setSequel(published));
    EXPECT_THROW(local->setAuthor(famous), Error<messages::CannotCreateCrossModelAssociation>);
    // The registry refers to no other model.
    EXPECT_THROW(published->setSequel(local), Error<messages::CannotCreateCrossModelAssociation>);
    // A containment never leaves its model: neither into the metamodel nor through a proxy
    // of another model's element.
    Shelf const holder = Shelf::create(model);
    EXPECT_THROW(holder->setFeatured(published), Error<messages::CannotCreateCrossModelAssociation>);
    EXPECT_FALSE(published->container());
    Book const elsewhere = Book::createProxy(model, ProxyId(u"uuid", u"b3f1", basalt::ustring(u"file:///elsewhere")));
    EXPECT_THROW(holder->setFeatured(elsewhere), Error<messages::CannotCreateCrossModelAssociation>);
    EXPECT_FALSE(holder->getFeatured());
    published->destroy();
    famous->destroy();
    transaction.commit();

    // Within one constellation any reference that is not a containment is allowed.
    ModelConstellation constellation = ModelConstellation::create();
    Model a = Model::create(constellation);
    Model b = Model::create(constellation);
    Transaction inA = a->beginTransaction();
    Transaction inB = b->beginTransaction();
    Book book = Book::create(a);
    Author author = Author::create(b);
    EXPECT_NO_THROW(book->setAuthor(author));
    EXPECT_EQ(author->getFavourite(), book);
    Shelf shelf = Shelf::create(b);
    EXPECT_THROW(shelf->setFeatured(book), Error<messages::CannotChangeModel>);
    inB.commit();
    inA.commit();
}

TEST_F(ModelElementTest, ManyValuedFarEndsAreLeftToTheParser) {
    Book book = Book::create(model);
    Probe far = Probe::create(model);
    meta::Property const books = Author::Impl::booksProperty();         // many-valued
    meta::Property const favourite = Author::Impl::favouriteProperty(); // single-valued
    ASSERT_TRUE(books && favourite);
    {
        auto parsing = model->startParse();
        book->_inverseAddThis(far.get(), books, /*force=*/false); // the parser brings this end
        book->_inverseAddThis(far.get(), favourite, /*force=*/false);
        book->_inverseAddThis(far.get(), books, /*force=*/true);
    }
    book->_inverseAddThis(far.get(), books, /*force=*/false);
    EXPECT_EQ(far->inverseAdds, (std::vector<meta::Property>{favourite, books, books}));
}

// What the flavoured reflective suite does not ask: a subclass reaches the properties it
// inherits and its own, by index too, and an unknown property's error names it.
TEST_F(ModelElementTest, ReflectiveAccessReachesInheritedPropertiesAndNamesWhatItLacks) {
    Novel novel = Novel::create(model);
    novel->setTitle(u"Dune");
    EXPECT_EQ(novel->getPropertyValue(Book::Impl::titleProperty(), Tag::PUBLIC_ACCESS).get<basalt::ustring>(), u"Dune");
    novel->setPropertyValue(Novel::Impl::genreProperty(), Value(basalt::ustring(u"SF")), Tag::PUBLIC_ACCESS);
    EXPECT_EQ(novel->getGenre().value_or(u""), u"SF");
    EXPECT_FALSE(novel->getPropertyValue(Book::Impl::isbnProperty(), Tag::PRIVILEGED_ACCESS).hasPayload());
    try {
        novel->getPropertyValue(Shelf::Impl::labelProperty(), Tag::PRIVILEGED_ACCESS);
        ADD_FAILURE();
    } catch (Error<messages::NoSuchProperty> const &error) {
        EXPECT_EQ(std::get<basalt::ustring>(error.getRecord().getArguments()[0]), u"label");
    }
    EXPECT_EQ(novel->getPropertyByIndex(Book::Impl::writerIndex), Book::Impl::writerProperty());
    EXPECT_EQ(novel->getPropertyByIndex(Novel::Impl::genreIndex), Novel::Impl::genreProperty());
    EXPECT_FALSE(novel->getPropertyByIndex(99));
}

// The present value is what the getter reads: a held proxy stands for its element, and
// writing that element opens no transaction.
TEST_F(ModelElementTest, AnEqualWriteOfAProxysElementMakesNoChange) {
    Book book = Book::create(model);
    auto const id = ElementImpl::generateNewUuid();
    book->setSequel(Book::createProxy(model, ProxyId(u"uuid", basalt::i18n::utf8_to_ustring(boost::uuids::to_string(id)), boost::none)));
    Book sequel = Book::create(model, id);
    {
        auto freezer = model->freeze(); // a change would fail
        EXPECT_NO_THROW(book->setSequel(sequel));
    }
    EXPECT_EQ(book->getSequel().get(), sequel.get());
}

} // namespace
} // namespace kivra::test::library
