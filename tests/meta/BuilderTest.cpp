#include "ModelSnapshot.hpp"

#include <library/Author.hpp>
#include <library/Book.hpp>
#include <library/Novel.hpp>
#include <library/Shelf.hpp>

#include <kivra/PrimitiveCollection.hpp>
#include <kivra/Listener.hpp>
#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/ModelConstellation.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/VersionInfo.hpp>

#include <basalt/i18n/Unicode.hpp>

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_generators.hpp>

#include <gtest/gtest.h>

namespace kivra::test::library {
namespace {

using Tag = ModelElement::Impl::ReflectionPrivateTag;

std::unique_ptr<Book::Builder> bookBuilder(Model const &model, char16_t const *title) {
    auto builder = std::make_unique<Book::Builder>(model);
    builder->setTitle(title);
    return builder;
}

/// Vetoes every commit while armed.
struct Veto : Listener {
    bool validate(std::shared_ptr<ReportData> const &) { return !armed; }
    bool armed = true;
};

/// A builder of books whose creation fails.
struct Exploding final : Book::Impl::BuilderBase<Exploding>, Book::Impl::BuilderImpl {
    explicit Exploding(Model const &model)
        : BuilderBase(model, Book::Impl::propertyCount + 1),
          Book::Impl::BuilderImpl(static_cast<ModelElement::Builder &>(*this)) {}
    meta::Class const &getMetaClass() const override { return Book::metaClass(); }
    ModelElement doCreate(bool, boost::uuids::uuid const &) override { throw std::runtime_error("exploded"); }
};

class BuilderTest : public ::testing::Test {
protected:
    Model model = Model::create(ModelConstellation());
};

TEST_F(BuilderTest, ATreeOfBuildersMakesParentAndChildrenInOneTransaction) {
    Shelf::Builder shelf(model);
    auto first = bookBuilder(model, u"Dune");
    first->addChapters(bookBuilder(model, u"Part one")).addChapters(bookBuilder(model, u"Part two"));
    shelf.setLabel(u"SF").addBooks(std::move(first)).addBooks(bookBuilder(model, u"Solaris"));
    shelf.setFeatured(bookBuilder(model, u"Ubik"));

    Shelf const made = shelf.createShelf();
    ASSERT_EQ(made->getBooks().size(), 2u);
    Book const dune = made->getBooks()[0];
    EXPECT_EQ(dune->getTitle(), u"Dune");
    EXPECT_EQ(made->getBooks()[1]->getTitle(), u"Solaris");
    ASSERT_EQ(dune->getChapters().size(), 2u);
    EXPECT_EQ(dune->getChapters()[1]->getTitle(), u"Part two");
    EXPECT_EQ(dune->getChapters()[0]->getChapterOf(), dune);
    EXPECT_EQ(made->getFeatured()->getShelf(), made);
    // Only the root is top level: the children went into their containers.
    EXPECT_EQ(model->getTopLevelElements().size(), 1u);

    // Inside an outer transaction, the whole tree goes with its roll-back.
    ModelSnapshot const before = snapshot(model);
    Transaction outer = model->beginRevertibleTransaction();
    shelf.createShelf();
    EXPECT_EQ(model->getTopLevelElements().size(), 2u);
    outer.rollBack();
    EXPECT_EQ(snapshot(model), before);
}

TEST_F(BuilderTest, AFailureAnywhereInTheTreeLeavesNothing) {
    ModelSnapshot const empty = snapshot(model);
    Author const other = Author::create(Model::createTransientModel());
    {
        // A child deep in the tree throws once its siblings and their children were made.
        Shelf::Builder shelf(model);
        auto book = bookBuilder(model, u"Dune");
        book->addChapters(bookBuilder(model, u"Part one")).addChapters(std::make_unique<Exploding>(model));
        shelf.addBooks(bookBuilder(model, u"Solaris")).addBooks(std::move(book));
        EXPECT_THROW(shelf.createShelf(), std::runtime_error);
        EXPECT_EQ(describeDifference(empty, snapshot(model)), "");
    }
    {
        // A child builder without a model fails after its siblings were made.
        Shelf::Builder shelf(model);
        shelf.addBooks(bookBuilder(model, u"Solaris")).addBooks(std::make_unique<Book::Builder>());
        EXPECT_THROW(shelf.createShelf(), Error<messages::CannotCreateWithoutModel>);
        EXPECT_EQ(describeDifference(empty, snapshot(model)), "");
    }
    {
        // A validator's veto takes back the whole tree.
        Veto veto;
        addListener<ListenerRole::Validator>(model, veto);
        Shelf::Builder shelf(model);
        shelf.addBooks(bookBuilder(model, u"Solaris"));
        EXPECT_FALSE(shelf.createShelf());
        EXPECT_EQ(describeDifference(empty, snapshot(model)), "");
        // The builders are free again: the same tree is made once the veto is lifted.
        veto.armed = false;
        EXPECT_EQ(shelf.createShelf()->getBooks().size(), 1u);
        removeListener(model, veto);
    }
}

TEST_F(BuilderTest, CreationIsRefusedForAbstractClassesAndFrozenModels) {
    // No generated builder exists for an abstract class; one made by hand for a class
    // described as abstract still makes no element.
    static Model const metamodel = Model::createTransientModel();
    static meta::Class const abstract = [] {
        meta::Class cls = meta::Class::create(metamodel);
        cls->setName(u"Shape");
        cls->setIsAbstract(true);
        return cls;
    }();
    struct AbstractBuilder final : Book::Impl::BuilderBase<AbstractBuilder>, Book::Impl::BuilderImpl {
        explicit AbstractBuilder(Model const &model)
            : BuilderBase(model, Book::Impl::propertyCount + 1),
              Book::Impl::BuilderImpl(static_cast<ModelElement::Builder &>(*this)) {}
        meta::Class const &getMetaClass() const override { return abstract; }
        ModelElement doCreate(bool, boost::uuids::uuid const &) override { return Book::create(getModel()); }
    };
    try {
        AbstractBuilder(model).setTitle(u"Dune").create();
        ADD_FAILURE();
    } catch (Error<messages::NoSuchOperation> const &error) {
        EXPECT_EQ(std::get<basalt::ustring>(error.getRecord().getArguments()[0]), u"create");
        EXPECT_EQ(std::get<basalt::ustring>(error.getRecord().getArguments()[1]), u"Shape");
    }

    Shelf::Builder shelf(model);
    shelf.addBooks(bookBuilder(model, u"Dune"));
    {
        auto freezer = model->freeze();
        EXPECT_THROW(shelf.create(), Error<messages::ModelFrozen>);
    }
    EXPECT_TRUE(model->getTopLevelElements().empty());
    EXPECT_THROW(Book::Builder().createBook(), Error<messages::CannotCreateWithoutModel>);
}

// Each class's builder, left alone, makes the element that `create` makes, and its
// staged values read as the element's.
TEST_F(BuilderTest, StagedDefaultsAreTheElementsDefaults) {
    auto sameValues = [&](ModelElement const &built, ModelElement const &plain, Tag const &tag) {
        meta::Class const cls = built->getMetaClass();
        for (std::uint64_t index = 1;; ++index) {
            meta::Property const property = built->getPropertyByIndex(index);
            if (!property)
                break;
            if (property->isDynamicDefault())
                continue; // made anew for each element
            SCOPED_TRACE(basalt::i18n::ustring_to_utf8(cls->getName() + u"." + property->getName()));
            EXPECT_EQ(describeValue(built->getPropertyValue(property, tag)),
                      describeValue(plain->getPropertyValue(property, tag)));
        }
    };
    sameValues(Book::Builder(model).createBook(), Book::create(model), Tag::PRIVILEGED_ACCESS);
    sameValues(Novel::Builder(model).createNovel(), Novel::create(model), Tag::PRIVILEGED_ACCESS);
    sameValues(Shelf::Builder(model).createShelf(), Shelf::create(model), Tag::PRIVILEGED_ACCESS);
    sameValues(Author::Builder(model).createAuthor(), Author::create(model), Tag::PRIVILEGED_ACCESS);
    Book::Builder book(model);
    EXPECT_EQ(book.getPages(), 100);
    EXPECT_EQ(book.setPages(7).unsetPages().getPages(), Book::create(model)->getPages());
    EXPECT_FALSE(book.isSet(Book::Impl::pagesIndex));

    // kivra's own classes: the booleans that are true by default are true staged too.
    meta::Property::Builder property(model);
    EXPECT_TRUE(property.getIsPublicAccessor() && property.getIsPublicMutator() && property.getIsQualificationUnique());
    meta::Property const made = property.createProperty();
    EXPECT_TRUE(made->getIsPublicAccessor() && made->getIsPublicMutator() && made->getIsQualificationUnique());
    // An empty reference clears its bit and stages no opposite.
    meta::Property const other = meta::Property::create(model);
    property.setOpposite(other);
    EXPECT_TRUE(property.isSet(meta::Property::Impl::oppositeIndex));
    property.setOpposite({});
    EXPECT_FALSE(property.isSet(meta::Property::Impl::oppositeIndex));
    EXPECT_FALSE(property.createProperty()->getOpposite());
}

TEST_F(BuilderTest, UuidsAreKeptOrDrawn) {
    boost::uuids::uuid const given = boost::uuids::random_generator()();
    Book::Builder builder(model);
    EXPECT_EQ(builder.createBook(given)->getUuid(), given);
    Book const fresh = builder.createBook();
    EXPECT_FALSE(fresh->getUuid().is_nil());
    EXPECT_NE(fresh->getUuid(), given);
}

// setOrAdd takes each kind of property as its typed setter would, sets its bit, and is
// seen on the element made.
TEST_F(BuilderTest, SetOrAddStagesEveryPropertyKind) {
    Author const author = Author::create(model);
    Author const coauthor = Author::create(model);
    Book const sequel = Book::create(model);
    Shelf const shelf = Shelf::create(model);
    meta::Type const string = Book::Impl::titleProperty()->getType();

    Novel::Builder builder(model);
    struct Staged {
        meta::Property const &property;
        Value value;
    };
    Staged const cases[] = {
        {Book::Impl::titleProperty(), Value(basalt::ustring(u"Dune"))},                   // value
        {Book::Impl::pagesProperty(), Value(std::int32_t(412))},                          // value with default
        {Book::Impl::subtitleProperty(), Value(basalt::ustring(u"A novel"))},             // optional
        {Book::Impl::isbnProperty(), Value(std::string("978"))},                          // not public
        {Book::Impl::authorProperty(), Value(Author::metaClass(), author)},               // one-to-one
        {Book::Impl::sequelProperty(), Value(Book::metaClass(), sequel)},                 // no opposite
        {Book::Impl::cataloguedProperty(), Value(Shelf::metaClass(), shelf)},             // far end keyed
        {Book::Impl::coauthorsProperty(), Value(Author::metaClass(), coauthor)},          // collection entry
        {Novel::Impl::genreProperty(), Value(basalt::ustring(u"SF"))},                    // subclass level
    };
    for (Staged const &staged : cases) {
        SCOPED_TRACE(basalt::i18n::ustring_to_utf8(staged.property->getName()));
        builder.setOrAdd(staged.property, staged.value);
        EXPECT_TRUE(builder.isSet(staged.property->getPropertyIndex()));
    }
    builder.setOrAdd(Book::Impl::chaptersProperty(), bookBuilder(model, u"Part one")); // children
    builder.setOrAdd(Book::Impl::appendixProperty(), bookBuilder(model, u"Maps"));     // one child
    EXPECT_TRUE(builder.isSet(Book::Impl::chaptersIndex) && builder.isSet(Book::Impl::appendixIndex));

    Novel const novel = builder.createNovel();
    for (Staged const &staged : cases) {
        SCOPED_TRACE(basalt::i18n::ustring_to_utf8(staged.property->getName()));
        Value const read = novel->getPropertyValue(staged.property, Tag::PRIVILEGED_ACCESS);
        EXPECT_EQ(describeValue(read.extractEntryValues().at(0)), describeValue(staged.value));
    }
    EXPECT_EQ(author->getFavourite(), novel);
    EXPECT_EQ(shelf->getCatalogue().size(), 1u);
    EXPECT_EQ(coauthor->getCoauthored().size(), 1u);
    EXPECT_EQ(novel->getChapters()[0]->getTitle(), u"Part one");
    EXPECT_EQ(novel->getAppendix()->getAppendixOf(), novel);

    // An empty optional clears what was staged.
    builder.setOrAdd(Book::Impl::subtitleProperty(), Value(string, boost::none));
    EXPECT_FALSE(builder.getSubtitle());

    // A container end, staged, puts the element into its container.
    Shelf::Builder featured(model);
    Book::Builder inShelf(model);
    Shelf const target = Shelf::create(model);
    inShelf.setOrAdd(Book::Impl::shelfProperty(), Value(Shelf::metaClass(), target));
    EXPECT_EQ(inShelf.createBook()->getShelf(), target);
}

TEST_F(BuilderTest, SetOrAddRefusesWhatTheClassDoesNotHave) {
    Book::Builder builder(model);
    auto refused = [&](auto &&call, char16_t const *name) {
        try {
            call();
            ADD_FAILURE() << "no exception";
        } catch (Error<messages::NoSuchProperty> const &error) {
            auto const &arguments = error.getRecord().getArguments();
            EXPECT_EQ(std::get<basalt::ustring>(arguments[0]), name);
            EXPECT_EQ(std::get<basalt::ustring>(arguments[1]), Book::metaClass()->getQualifiedName());
        }
    };
    refused([&] { builder.setOrAdd(Shelf::Impl::labelProperty(), Value(basalt::ustring(u"x"))); }, u"label");
    refused([&] { builder.setOrAdd(Novel::Impl::genreProperty(), Value(basalt::ustring(u"x"))); }, u"genre");
    refused([&] { builder.setOrAdd(meta::Property(), Value(basalt::ustring(u"x"))); }, u"");
    // Children: of the wrong class, for a property that is not composite, or none at all.
    refused([&] { builder.setOrAdd(Book::Impl::chaptersProperty(), std::make_unique<Author::Builder>(model)); },
            u"chapters");
    refused([&] { builder.setOrAdd(Book::Impl::coauthorsProperty(), std::make_unique<Author::Builder>(model)); },
            u"coauthors");
    refused([&] { builder.setOrAdd(Book::Impl::chaptersProperty(), std::unique_ptr<ModelElement::Builder>()); },
            u"chapters");
    // A child of a subclass fits.
    builder.setOrAdd(Book::Impl::chaptersProperty(), std::make_unique<Novel::Builder>(model));
    EXPECT_THROW(builder.setOrAdd(Book::Impl::pagesProperty(), Value(basalt::ustring(u"x"))),
                 Error<messages::CannotCastIncompatibleTypes>);
    for (std::uint64_t index = 1; index <= Book::Impl::propertyCount; ++index)
        EXPECT_EQ(builder.isSet(index), index == Book::Impl::chaptersIndex) << index;
}

// Entries staged typed or through setOrAdd are in the new element, added by each
// collection's own rules; a value that cannot be an entry stages nothing.
TEST_F(BuilderTest, CollectionsOfValuesAreStagedAndMadeWithTheElement) {
    Author const other = Author::create(model);
    other->getRatingsMutable().assign({8, 9});

    Author::Builder author(model);
    author.addRatings({5, 5}).addRatings(6);
    author.setOrAdd(Author::Impl::ratingsProperty(), Value(std::int32_t(7)));                            // one entry
    author.setOrAdd(Author::Impl::ratingsProperty(),
                    other->getPropertyValue(Author::Impl::ratingsProperty(), Tag::PUBLIC_ACCESS));     // all of another's
    EXPECT_THROW(author.setOrAdd(Author::Impl::ratingsProperty(), Value(basalt::ustring(u"x"))),
                 Error<messages::CannotCastIncompatibleTypes>);
    EXPECT_EQ(author.getRatings(), (std::vector<std::int32_t>{5, 5, 6, 7, 8, 9}));
    author.addPseudonyms("b").addPseudonyms("a").addPseudonyms("b");
    author.addVisits(boost::uuids::random_generator()()).clearVisits();
    EXPECT_FALSE(author.isSet(Author::Impl::visitsIndex));

    Shelf::Builder shelf(model);
    shelf.addSources({meta::VersionInfo(u"core", u"1"), meta::VersionInfo(u"core", u"2"), meta::VersionInfo(u"io", u"1")});
    shelf.addCodes({3, 1, 3});
    Book::Builder book(model);
    book.setOrAdd(Book::Impl::tagsProperty(), Value(basalt::ustring(u"x")));
    book.addTags({u"y", u"x"});

    Author const made = author.createAuthor();
    EXPECT_EQ(std::vector<std::int32_t>(made->getRatings().begin(), made->getRatings().end()),
              (std::vector<std::int32_t>{5, 5, 6, 7, 8, 9}));
    EXPECT_EQ(std::vector<std::string>(made->getPseudonyms().begin(), made->getPseudonyms().end()),
              (std::vector<std::string>{"a", "b"}));
    EXPECT_FALSE(made->hasVisits());
    Shelf const madeShelf = shelf.createShelf();
    EXPECT_EQ(madeShelf->getSources().size(), 2u);
    EXPECT_EQ(madeShelf->getSources().find(u"core")->getMinVersion(), u"1") << "the first entry of a family stays";
    EXPECT_EQ(madeShelf->getCodes().size(), 2u);
    Book const madeBook = book.createBook();
    EXPECT_EQ(std::vector<basalt::ustring>(madeBook->getTags().begin(), madeBook->getTags().end()),
              (std::vector<basalt::ustring>{u"x", u"y"}));

    // The entries belong to the new element: their changes are its own, and roll back.
    Transaction transaction = model->beginRevertibleTransaction();
    madeBook->getTagsMutable().push_back(u"z");
    transaction.rollBack();
    EXPECT_EQ(madeBook->getTags().size(), 2u);
}

TEST_F(BuilderTest, ASequenceGrowsThroughBuilders) {
    Shelf const shelf = Shelf::create(model);
    ElementSequence<Book> &books = shelf->getBooksMutable();
    books.resize(2); // the registry's builder of the entry class
    auto novel = std::make_unique<Novel::Builder>(); // no model yet: it gets the owner's
    novel->setGenre(basalt::ustring(u"SF"));
    books.resize(4, Book::BuilderWrapper(std::move(novel))); // a subclass's builder will do
    ASSERT_EQ(books.size(), 4u);
    EXPECT_EQ(books[0]->getMetaClass(), Book::metaClass());
    EXPECT_EQ(books[3]->getMetaClass(), Novel::metaClass());
    EXPECT_NE(books[2], books[3]);
    EXPECT_EQ(books[3]->getShelf(), Shelf()); // held by `books`, not `featured`
    EXPECT_THROW(books.resize(5, ModelElement::BuilderWrapper(std::make_unique<Author::Builder>(model))),
                 Error<messages::CannotAddIncompatibleTypes>);
    // A class's own wrapper refuses another class's builder when it is made.
    EXPECT_THROW(Book::BuilderWrapper(std::make_unique<Author::Builder>(model)),
                 Error<messages::CannotCastIncompatibleTypes>);
    EXPECT_THROW(Novel::BuilderWrapper(std::make_unique<Book::Builder>(model)),
                 Error<messages::CannotCastIncompatibleTypes>); // a superclass's builder makes no novels
    books.resize(1);
    EXPECT_EQ(books.size(), 1u);
    EXPECT_EQ(model->getTopLevelElements().size(), 4u); // the shelf and the books it let go
}

// Reflective reads and writes agree with the typed accessors for each kind of property
// and each access mode.
TEST_F(BuilderTest, ReflectiveAccessAgreesWithTypedAccessors) {
    Book const book = Book::create(model);
    Author const author = Author::create(model);
    Shelf const shelf = Shelf::create(model);
    Book const chapter = Book::create(model);

    // Typed writes, reflective reads.
    book->setSubtitle(basalt::ustring(u"A novel"));
    book->setAuthor(author);
    book->setChapterOf(chapter);
    shelf->getBooksMutable().push_back(Book::create(model));
    for (Tag const *tag : {&Tag::PUBLIC_ACCESS, &Tag::PRIVILEGED_ACCESS, &Tag::NO_PROXY_RESOLVE, &Tag::IN_MEMORY_ONLY}) {
        EXPECT_EQ(book->getPropertyValue(Book::Impl::subtitleProperty(), *tag).get<basalt::ustring>(), u"A novel");
        EXPECT_EQ(book->getPropertyValue(Book::Impl::authorProperty(), *tag).getElement(), author);
        EXPECT_EQ(book->getPropertyValue(Book::Impl::chapterOfProperty(), *tag).getElement(), chapter);
        EXPECT_TRUE(book->hasPropertyValue(Book::Impl::chapterOfProperty(), *tag));
        EXPECT_FALSE(book->hasPropertyValue(Book::Impl::sequelProperty(), *tag));
        EXPECT_EQ(shelf->getPropertyValue(Shelf::Impl::booksProperty(), *tag).extractEntryValues().size(), 1u);
        // A property without public accessor exists only for privileged callers.
        if (tag->isPrivileged())
            EXPECT_FALSE(book->hasPropertyValue(Book::Impl::isbnProperty(), *tag));
        else
            EXPECT_THROW(book->hasPropertyValue(Book::Impl::isbnProperty(), *tag), Error<messages::NoSuchProperty>);
    }
    // A collection not yet made reads as absent without being made when proxies stay.
    EXPECT_FALSE(book->hasPropertyValue(Book::Impl::coauthorsProperty(), Tag::IN_MEMORY_ONLY));

    // Reflective writes, typed reads.
    book->setPropertyValue(Book::Impl::pagesProperty(), Value(std::int32_t(7)), Tag::PUBLIC_ACCESS);
    EXPECT_EQ(book->getPages(), 7);
    book->setPropertyValue(Book::Impl::subtitleProperty(), Value(Book::Impl::subtitleProperty()->getType(), boost::none),
                           Tag::PUBLIC_ACCESS);
    EXPECT_FALSE(book->hasSubtitle());
    book->setPropertyValue(Book::Impl::shelfProperty(), Value(Shelf::metaClass(), shelf), Tag::PUBLIC_ACCESS);
    EXPECT_EQ(shelf->getFeatured(), book);
    book->setPropertyValue(Book::Impl::coauthorsProperty(), Value(Author::metaClass(), author), Tag::PUBLIC_ACCESS);
    EXPECT_EQ(book->getCoauthors().size(), 1u);

    // A read-only property reads but refuses reflective writes, naming itself in full.
    shelf->setCode("A1");
    EXPECT_EQ(shelf->getPropertyValue(Shelf::Impl::codeProperty(), Tag::PUBLIC_ACCESS).get<std::string>(), "A1");
    try {
        shelf->setPropertyValue(Shelf::Impl::codeProperty(), Value(std::string("B2")), Tag::PRIVILEGED_ACCESS);
        ADD_FAILURE();
    } catch (Error<messages::CannotSetReadOnlyProperty> const &error) {
        EXPECT_EQ(std::get<basalt::ustring>(error.getRecord().getArguments()[0]), u"library.Shelf.code");
    }
    EXPECT_EQ(shelf->getCode(), "A1");
    EXPECT_THROW(shelf->setPropertyValue(Book::Impl::titleProperty(), Value(basalt::ustring(u"x")), Tag::PRIVILEGED_ACCESS),
                 Error<messages::NoSuchProperty>);
}

} // namespace
} // namespace kivra::test::library
