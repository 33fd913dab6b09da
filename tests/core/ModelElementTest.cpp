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

TEST_F(ModelElementTest, OneToOneEndsStayConsistent) {
    Book first = Book::create(model);
    Book second = Book::create(model);
    Author author = Author::create(model);

    first->setAuthor(author);
    EXPECT_EQ(author->getFavourite(), first);

    // Taking the author over leaves the first book without one.
    second->setAuthor(author);
    EXPECT_EQ(author->getFavourite(), second);
    EXPECT_FALSE(first->getAuthor());

    author->setFavourite(first);
    EXPECT_EQ(first->getAuthor(), author);
    EXPECT_FALSE(second->getAuthor());

    author->setFavourite({});
    EXPECT_FALSE(first->getAuthor());
}

TEST_F(ModelElementTest, ContainmentMovesBetweenContainers) {
    Shelf left = Shelf::create(model);
    Shelf right = Shelf::create(model);
    Book book = Book::create(model);
    EXPECT_TRUE(isTopLevel(book));

    left->setFeatured(book);
    EXPECT_EQ(book->getShelf(), left);
    EXPECT_EQ(book->container(), left);
    EXPECT_FALSE(isTopLevel(book));

    // Moved from the child's end: the old container lets go.
    book->setShelf(right);
    EXPECT_FALSE(left->getFeatured());
    EXPECT_EQ(right->getFeatured(), book);

    // Replaced from the container's end: the old child is top level again.
    Book other = Book::create(model);
    right->setFeatured(other);
    EXPECT_TRUE(book->isTopLevel());
    EXPECT_TRUE(isTopLevel(book));
    EXPECT_EQ(other->getShelf(), right);

    other->setShelf({});
    EXPECT_FALSE(right->getFeatured());
    EXPECT_EQ(topLevel().size(), 4u);
}

TEST_F(ModelElementTest, CyclesAreRefusedWithNothingChanged) {
    Book outer = Book::create(model);
    Book inner = Book::create(model);
    outer->setAppendix(inner);
    EXPECT_THROW(outer->setAppendix(outer), Error<messages::CircularContainment>);
    EXPECT_THROW(inner->setAppendix(outer), Error<messages::CircularContainment>);
    EXPECT_THROW(outer->setAppendixOf(inner), Error<messages::CircularContainment>);
    EXPECT_EQ(outer->getAppendix(), inner);
    EXPECT_FALSE(inner->getAppendix());
    EXPECT_TRUE(outer->isTopLevel());
}

TEST_F(ModelElementTest, DestroyTakesTheSubtreeAndTheFarEnds) {
    Shelf shelf = Shelf::create(model);
    Book book = Book::create(model);
    Book appendix = Book::create(model);
    Author author = Author::create(model);
    Book reader = Book::create(model);
    shelf->setFeatured(book);
    book->setAppendix(appendix);
    book->setAuthor(author);
    reader->setSequel(appendix); // one way

    shelf->destroy();
    EXPECT_FALSE(shelf);
    EXPECT_FALSE(book);
    EXPECT_FALSE(appendix);
    EXPECT_FALSE(author->getFavourite()); // the far end forgot the book
    EXPECT_FALSE(reader->getSequel());    // a one-way reference reads as invalid
    EXPECT_NE(reader->getSequel().get(), nullptr);
    EXPECT_EQ(model->elementCount(), 2u);
    shelf->destroy(); // twice is harmless

    // A contained element destroyed alone leaves its container.
    Shelf other = Shelf::create(model);
    Book held = Book::create(model);
    other->setFeatured(held);
    held->destroy();
    EXPECT_FALSE(other->getFeatured());
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

TEST_F(ModelElementTest, ReflectiveAccessFollowsTheTag) {
    Novel novel = Novel::create(model);
    novel->setTitle(u"Dune");
    Value const title = novel->getPropertyValue(Book::Impl::titleProperty(), Tag::PUBLIC_ACCESS);
    EXPECT_EQ(title.get<basalt::ustring>(), u"Dune");
    EXPECT_EQ(novel->getPropertyValue(Book::Impl::pagesProperty(), Tag::PUBLIC_ACCESS).get<std::int32_t>(), 100);

    novel->setPropertyValue(Novel::Impl::genreProperty(), Value(title.getType(), basalt::ustring(u"SF")),
                            Tag::PUBLIC_ACCESS);
    EXPECT_EQ(novel->getGenre().value_or(u""), u"SF");
    EXPECT_FALSE(novel->hasPropertyValue(Book::Impl::subtitleProperty(), Tag::PUBLIC_ACCESS));

    // A property without public accessor is unknown to public callers.
    EXPECT_THROW(novel->getPropertyValue(Book::Impl::isbnProperty(), Tag::PUBLIC_ACCESS),
                 Error<messages::NoSuchProperty>);
    EXPECT_FALSE(novel->getPropertyValue(Book::Impl::isbnProperty(), Tag::PRIVILEGED_ACCESS).hasPayload());
    // A property of another class is unknown too, and its name is in the error.
    try {
        novel->getPropertyValue(Shelf::Impl::labelProperty(), Tag::PRIVILEGED_ACCESS);
        ADD_FAILURE();
    } catch (Error<messages::NoSuchProperty> const &error) {
        EXPECT_EQ(std::get<basalt::ustring>(error.getRecord().getArguments()[0]), u"label");
    }

    Author author = Author::create(model);
    novel->setPropertyValue(Book::Impl::authorProperty(), Value(Author::metaClass(), author), Tag::PUBLIC_ACCESS);
    EXPECT_EQ(author->getFavourite(), novel);
    EXPECT_THROW(novel->setPropertyValue(Book::Impl::authorProperty(), Value(Book::metaClass(), novel), Tag::PUBLIC_ACCESS),
                 Error<messages::CannotCastIncompatibleTypes>);
    EXPECT_EQ(novel->getPropertyByIndex(Book::Impl::writerIndex), Book::Impl::writerProperty());
    EXPECT_EQ(novel->getPropertyByIndex(Novel::Impl::genreIndex), Novel::Impl::genreProperty());
    EXPECT_FALSE(novel->getPropertyByIndex(99));
}

// The present value is what the getter reads: a held proxy stands for its element.
TEST_F(ModelElementTest, EqualValueMakesNoChange) {
    Book book = Book::create(model);
    Author author = Author::create(model);
    book->setAuthor(author);
    book->setTitle(u"Dune");
    auto const id = ElementImpl::generateNewUuid();
    book->setSequel(Book::createProxy(model, ProxyId(u"uuid", basalt::i18n::utf8_to_ustring(boost::uuids::to_string(id)), boost::none)));
    Book sequel = Book::create(model, id);
    {
        auto freezer = model->freeze(); // a change would fail
        EXPECT_NO_THROW(book->setTitle(u"Dune"));
        EXPECT_NO_THROW(book->setAuthor(author));
        EXPECT_NO_THROW(book->setSequel(sequel));
        EXPECT_THROW(book->setTitle(u"Emma"), Error<messages::ModelFrozen>);
    }
    EXPECT_EQ(book->getSequel().get(), sequel.get());
}

} // namespace
} // namespace kivra::test::library
