#include "QueryFixtures.hpp"

#include <kivra/Messages.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/Enum.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/StandardTypes.hpp>
#include <kivra/query/Constrainables.hpp>

#include <library/Author.hpp>
#include <library/AuthorConstrainables.hpp>
#include <library/Book.hpp>
#include <library/BookConstrainables.hpp>
#include <library/Novel.hpp>
#include <library/NovelConstrainables.hpp>
#include <library/Shelf.hpp>
#include <library/ShelfConstrainables.hpp>


#include <gtest/gtest.h>

#include <type_traits>

namespace kivra::query {
namespace {

using namespace kivra::test::library;
using R = ValueMatchRelation;
using Mode = SearchClassMatchMode;
using test::expectSameQuery;

/// A typed query that shows what it recorded.
struct Typed : AbstractQuery {
    using AbstractQuery::AbstractQuery;
    NativeKivraQuery &recorded() const { return static_cast<NativeKivraQuery &>(*getUnderlyingQuery()); }
};

Value text(char16_t const *t) { return Value(meta::StandardTypes::stringMeta.get(), basalt::ustring(t)); }
Value number(std::int32_t n) { return Value(meta::StandardTypes::integerMeta.get(), n); }

struct TypedQuery : ::testing::Test {
    Model model = Model::createTransientModel();
    Author jane = Author::create(model);
    Book dune = Book::create(model);
    Novel emma = Novel::create(model);
};

TEST_F(TypedQuery, BuildsWhatTheReflectiveFrontBuilds) {
    Typed typed(model);
    Book::Constrainables books({typed, Mode::ClassOrSubclass});
    Author::Constrainables authors(typed, Author::metaClass(), Mode::ExactClass);
    Novel::Constrainables novels({typed, Mode::ExactClass});
    ASSERT_EQ(books.getInstanceId(), 0u);
    ASSERT_EQ(authors.getInstanceId(), 1u);
    ASSERT_EQ(novels.getInstanceId(), 2u);

    // Constants: on required and optional values, texts of both kinds, elements.
    typed.add(books.pages > 100);
    typed.add(books.pages <= 900);
    typed.add(books.title.like(u"Dune%"));
    typed.add(books.title.equalStringNocase(u"dune"));
    typed.add(books.subtitle == boost::none);
    typed.add(books.subtitle != u"Part One");
    typed.add(books.isbn.regexpSearch("^97[89]"));
    typed.add(books.writer == jane);
    typed.add(books.coauthors.contains(jane));
    typed.add(novels.genre.regexpMatch(u"[Ss]atire"));
    // Lists and sets of plain values, which match when any entry does.
    typed.add(authors.ratings >= 4);
    typed.add(authors.pseudonyms == std::string("Ellis"));
    typed.add(books.tags.like(u"sci%"));
    // Two properties of one element, joins, associations.
    typed.add(books.title >= books.subtitle);
    typed.add(authors.name == books.title);
    typed.add(books.writer == authors);
    typed.add(books.sequel == novels);
    typed.add(books.coauthors.contains(authors));
    typed.add(books.sequel != books.appendix);
    typed.add(books.requireTopLevelElement());
    typed.add(authors == jane);
    typed.add(novels == emma);
    // Alternatives over one instance, and over two.
    typed.add(books.title == u"Dune" || books.title.like(u"Emma%") || books.pages < 10);
    typed.add(books.title == u"Dune" || authors.name == u"Jane");
    // Named through the class before an instance is chosen; a subclass's instance will do.
    typed.add((Book::pages() >= 10).on(novels));
    typed.add((Book::title() == Author::name()).on(novels, authors));
    typed.add((Book::writer() == Author::Uuid()).on(novels, authors));
    typed.add(Book::chapters().contains(Novel::Uuid()).on(books, novels));
    typed.setResultLimit(25);
    typed.setResultOffset(5);
    typed.sortByProperty(novels.genre, SortDirection::Descending);

    NativeKivraQuery reflective;
    std::size_t const book = reflective.addSearchClass(Book::metaClass(), Mode::ClassOrSubclass);
    std::size_t const author = reflective.addSearchClass(Author::metaClass(), Mode::ExactClass);
    std::size_t const novel = reflective.addSearchClass(Novel::metaClass(), Mode::ExactClass);
    auto const title = Book::Impl::titleProperty();
    reflective.addPropertyRelationValue(Book::Impl::pagesProperty(), R::greater, number(100), book);
    reflective.addPropertyRelationValue(Book::Impl::pagesProperty(), R::lessOrEqual, number(900), book);
    reflective.addPropertyRelationValue(title, R::like, text(u"Dune%"), book);
    reflective.addPropertyRelationValue(title, R::equalStringNocase, text(u"dune"), book);
    reflective.addPropertyRelationValue(Book::Impl::subtitleProperty(), R::equal,
                                        Value(meta::StandardTypes::stringMeta.get(), boost::none), book);
    reflective.addPropertyRelationValue(Book::Impl::subtitleProperty(), R::notEqual, text(u"Part One"), book);
    reflective.addPropertyRelationValue(Book::Impl::isbnProperty(), R::regexpSearch,
                                        Value(meta::StandardTypes::stdstringMeta.get(), std::string("^97[89]")), book);
    reflective.addPropertyRelationValue(Book::Impl::writerProperty(), R::equal, Value(Author::metaClass(), jane), book);
    reflective.addPropertyRelationValue(Book::Impl::coauthorsProperty(), R::equal, Value(Author::metaClass(), jane),
                                        book);
    reflective.addPropertyRelationValue(Novel::Impl::genreProperty(), R::regexpMatch, text(u"[Ss]atire"), novel);
    reflective.addPropertyRelationValue(Author::Impl::ratingsProperty(), R::greaterOrEqual, number(4), author);
    reflective.addPropertyRelationValue(Author::Impl::pseudonymsProperty(), R::equal,
                                        Value(meta::StandardTypes::stdstringMeta.get(), std::string("Ellis")), author);
    reflective.addPropertyRelationValue(Book::Impl::tagsProperty(), R::like, text(u"sci%"), book);
    reflective.addPropertyRelationProperty(title, book, R::greaterOrEqual, Book::Impl::subtitleProperty(), book);
    reflective.addPropertyRelationProperty(Author::Impl::nameProperty(), author, R::equal, title, book);
    reflective.addAssociatedObject(Book::Impl::writerProperty(), book, author);
    reflective.addAssociatedObject(Book::Impl::sequelProperty(), book, novel);
    reflective.addAssociatedObject(Book::Impl::coauthorsProperty(), book, author);
    reflective.addPropertyRelationProperty(Book::Impl::sequelProperty(), book, R::notEqual,
                                           Book::Impl::appendixProperty(), book);
    reflective.requireTopLevelElement(book);
    reflective.setSpecificElement(jane, author);
    reflective.setSpecificElement(emma, novel);
    ReflectiveDisjunction *single = reflective.createDisjunction();
    single->addPropertyRelationValue(title, R::equal, text(u"Dune"), book);
    single->addPropertyRelationValue(title, R::like, text(u"Emma%"), book);
    single->addPropertyRelationValue(Book::Impl::pagesProperty(), R::less, number(10), book);
    single->finish();
    ReflectiveDisjunction *rows = reflective.createDisjunction();
    rows->addPropertyRelationValue(title, R::equal, text(u"Dune"), book);
    rows->addPropertyRelationValue(Author::Impl::nameProperty(), R::equal, text(u"Jane"), author);
    rows->finish();
    reflective.addPropertyRelationValue(Book::Impl::pagesProperty(), R::greaterOrEqual, number(10), novel);
    reflective.addPropertyRelationProperty(title, novel, R::equal, Author::Impl::nameProperty(), author);
    reflective.addAssociatedObject(Book::Impl::writerProperty(), novel, author);
    reflective.addAssociatedObject(Book::Impl::chaptersProperty(), book, novel);
    reflective.setResultLimit(25);
    reflective.setResultOffset(5);
    reflective.sortByProperty(Novel::Impl::genreProperty(), novel, SortDirection::Descending);

    expectSameQuery(typed.recorded(), reflective);
    EXPECT_EQ(typed.recorded().getModel(), model);
}

// What the registry would refuse at run time, the typed front does not offer.
template <class C, class V> concept Likeable = requires(C const &c, V const &v) { c.like(v); };
template <class C, class V> concept Ordered = requires(C const &c, V const &v) { c < v; };
template <class C, class V> concept Comparable = requires(C const &c, V const &v) { c == v; };
using Pages = decltype(Book::Constrainables::pages);
using Title = decltype(Book::Constrainables::title);
using Writer = decltype(Book::Constrainables::writer);
static_assert(Likeable<Title, basalt::ustring> && !Likeable<Pages, std::int32_t>);
static_assert(!Ordered<Writer, Author> && !Ordered<Writer, Writer>);
static_assert(!Comparable<Title, decltype(Book::Constrainables::isbn)>, "String and StdString differ");
static_assert(!Comparable<Title, boost::none_t> && Comparable<decltype(Book::Constrainables::subtitle), boost::none_t>);
static_assert(!Comparable<Writer, Book> && !Comparable<Writer, Book::Constrainables &>);
static_assert(!std::is_copy_constructible_v<Book::Constrainables>, "its constrainables point at it");
// A map of data-type values or of texts has no entry type to compare with.
template <class C> concept HasSources = requires(C const &c) { c.sources; };
template <class C> concept HasLabels = requires(C const &c) { c.labels; };
static_assert(!HasSources<Shelf::Constrainables> && !HasLabels<Shelf::Constrainables>);
static_assert(Ordered<decltype(Author::Constrainables::ratings), std::int32_t> &&
              !Likeable<decltype(Author::Constrainables::ratings), std::int32_t>);
// A constraint named through a class binds to instances of that class or a subclass, once.
template <class K, class C> concept Binds = requires(K const &k, C &c) { k.on(c); };
using OnBooks = decltype(Book::pages() > 1);
static_assert(Binds<OnBooks, Book::Constrainables> && Binds<OnBooks, Novel::Constrainables>);
static_assert(!Binds<OnBooks, Author::Constrainables> && !Binds<decltype(Novel::genre() == u""), Book::Constrainables>);
static_assert(!Binds<ValueRelationConstraint<InstanceAttachment>, Book::Constrainables>);
template <class C, class V> concept Fixes = requires(C &c, V const &v) { c == v; };
static_assert(std::is_same_v<decltype(std::declval<Book::Constrainables &>() == std::declval<Novel>()),
                             SpecificValueConstraint<InstanceAttachment, Book>>);
static_assert(!Fixes<Novel::Constrainables, Book> && !Fixes<Book::Constrainables, ModelElement>);

TEST_F(TypedQuery, RaisesWhatTheUnderlyingQueryRaises) {
    Typed typed(model);
    Book::Constrainables books({typed, Mode::ClassOrSubclass});
    Author::Constrainables authors({typed, Mode::ClassOrSubclass});
    EXPECT_THROW(Book::Constrainables(typed, meta::Class(), Mode::ExactClass), Error<InvalidSearchClass>);

    // An instance of another query would name whatever instance has its id here.
    Typed other(model);
    Book::Constrainables stranger({other, Mode::ClassOrSubclass});
    EXPECT_THROW(typed.add(stranger.pages > 1), Error<NoSuchInstanceId>);
    EXPECT_THROW(typed.add(books.title == stranger.title), Error<NoSuchInstanceId>);
    EXPECT_THROW(typed.add(stranger.writer == authors), Error<NoSuchInstanceId>);
    EXPECT_THROW(typed.add(stranger.requireTopLevelElement()), Error<NoSuchInstanceId>);
    EXPECT_THROW(typed.add(stranger == dune), Error<NoSuchInstanceId>);
    EXPECT_THROW(typed.add(books.title == u"Dune" || stranger.title == u"Emma"), Error<NoSuchInstanceId>);
    EXPECT_THROW(typed.sortIntrinsic(stranger, SortDirection::Ascending), Error<NoSuchInstanceId>);
    EXPECT_THROW(typed.sortByProperty(stranger.pages, SortDirection::Ascending), Error<NoSuchInstanceId>);

    typed.add(books == dune);

    NativeKivraQuery const &recorded = typed.recorded();
    EXPECT_EQ(recorded.instances.size(), 2u);
    EXPECT_EQ(recorded.instances[0].constraints.size(), 1u);
    EXPECT_TRUE(recorded.joinGroups.empty());
    EXPECT_TRUE(recorded.disjunctions.empty()) << "a group is checked before it is made";
    EXPECT_FALSE(recorded.sorting);
    EXPECT_EQ(recorded.instances[0].specificElement, dune);
}

TEST_F(TypedQuery, SortsAndTheRootInstance) {
    Typed typed;
    EXPECT_FALSE(typed.recorded().getModel());
    ModelElement::Constrainables anything(typed, Author::metaClass(), Mode::ClassOrSubclass);
    Shelf::Constrainables shelves(typed, Shelf::metaClass(), Mode::ExactClass);
    EXPECT_EQ(&shelves.getQuery(), &typed);

    typed.add(anything.requireTopLevelElement());
    typed.add(anything == jane);
    typed.sortByOrdinal(shelves.books, SortDirection::Descending);
    typed.sortIntrinsic(anything, SortDirection::Ascending);
    typed.sortByProperty(shelves.label, SortDirection::Ascending);

    NativeKivraQuery reflective;
    reflective.addSearchClass(Author::metaClass(), Mode::ClassOrSubclass);
    reflective.addSearchClass(Shelf::metaClass(), Mode::ExactClass);
    reflective.requireTopLevelElement(0);
    reflective.setSpecificElement(jane, 0);
    reflective.sortByOrdinal(Shelf::Impl::booksProperty(), 1, SortDirection::Descending);
    reflective.sortIntrinsic(0, SortDirection::Ascending);
    reflective.sortByProperty(Shelf::Impl::labelProperty(), 1, SortDirection::Ascending);
    expectSameQuery(typed.recorded(), reflective);
}

TEST_F(TypedQuery, EnumConstantsAreTheNumbersThatReadersGive) {
    // As generated readers give them: the literal's number, sign-extended to 64 bits.
    enum class Season : std::int32_t { Winter = -1, Summer = 2 };
    meta::Enum const season = meta::Enum::create(model);
    meta::Property const blooms = test::makeProperty(model, season, /*lower=*/1);
    Typed typed(model);
    Book::Constrainables books({typed, Mode::ClassOrSubclass});
    ConstrainableWithAttachment<Season, InstanceAttachment, 0> const when(blooms, InstanceAttachment(books));
    typed.add(when == Season::Winter);
    typed.add(when != Season::Summer);

    NativeKivraQuery reflective;
    reflective.addSearchClass(Book::metaClass(), Mode::ClassOrSubclass);
    reflective.addPropertyRelationValue(blooms, R::equal, Value(season, std::uint64_t(std::int64_t(-1))), 0);
    reflective.addPropertyRelationValue(blooms, R::notEqual, Value(season, std::uint64_t(2)), 0);
    expectSameQuery(typed.recorded(), reflective);
}

} // namespace
} // namespace kivra::query
