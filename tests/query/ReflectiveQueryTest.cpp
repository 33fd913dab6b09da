#include "QueryFixtures.hpp"

#include <kivra/Messages.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/StandardTypes.hpp>

#include <library/Author.hpp>
#include <library/Book.hpp>
#include <library/Novel.hpp>
#include <library/Shelf.hpp>

#include <gtest/gtest.h>

#include <string>
#include <typeinfo>
#include <vector>

namespace kivra::query {
namespace {

using namespace kivra::test::library;
using R = ValueMatchRelation;
using Mode = SearchClassMatchMode;

template <class T, class P> bool is(std::unique_ptr<P> const &p) { return p && typeid(*p) == typeid(T); }

Value text(char16_t const *t) { return Value(meta::StandardTypes::stringMeta.get(), basalt::ustring(t)); }

struct Fixture : ::testing::Test {
    Model model = Model::createTransientModel();
    NativeKivraQuery query;
    std::size_t book = query.addSearchClass(Book::metaClass(), Mode::ClassOrSubclass);
    std::size_t author = query.addSearchClass(Author::metaClass(), Mode::ExactClass);
};

using ReflectiveQueryRecords = Fixture;

TEST_F(ReflectiveQueryRecords, EachCallWhereTheEngineLooksForItAndARetargetRepeatsIt) {
    ASSERT_EQ(book, 0u);
    ASSERT_EQ(author, 1u);
    Author writer = Author::create(model);
    query.addPropertyRelationValue(Book::Impl::pagesProperty(), R::greater,
                                   Value(meta::StandardTypes::integerMeta.get(), std::int32_t(100)), book);
    query.requireTopLevelElement(book);
    query.addPropertyRelationProperty(Book::Impl::titleProperty(), book, R::notEqual, Book::Impl::subtitleProperty(), book);
    query.addPropertyRelationProperty(Author::Impl::nameProperty(), author, R::equal, Book::Impl::titleProperty(), book);
    query.addAssociatedObject(Book::Impl::writerProperty(), book, author);
    query.addAssociatedObject(Book::Impl::sequelProperty(), book, book);
    query.setSpecificElement(writer, author);
    ReflectiveDisjunction *single = query.createDisjunction();
    single->addPropertyRelationValue(Book::Impl::titleProperty(), R::equal, text(u"Dune"), book);
    single->addPropertyRelationValue(Book::Impl::titleProperty(), R::like, text(u"Emma%"), book);
    single->finish();
    ReflectiveDisjunction *rows = query.createDisjunction();
    rows->addPropertyRelationValue(Book::Impl::titleProperty(), R::equal, text(u"Dune"), book);
    rows->addPropertyRelationValue(Author::Impl::nameProperty(), R::equal, text(u"Jane"), author);
    rows->finish();
    query.setResultLimit(5);
    query.setResultOffset(3);
    query.sortByProperty(Book::Impl::pagesProperty(), book, SortDirection::Descending);

    auto const &bookConstraints = query.instances[book].constraints;
    ASSERT_EQ(bookConstraints.size(), 5u);
    EXPECT_TRUE(is<IsAConstraint>(bookConstraints[0]));
    EXPECT_TRUE(is<ReflectiveDisjunctionImpl::SingleObjectDisjunctionConstraint>(bookConstraints[4]));
    auto const &pages = static_cast<PropertyRelationValueConstraint const &>(*bookConstraints[1]);
    EXPECT_EQ(pages.comparator, ValueComparatorRegistry::getInstance()->getComparator(
                                    R::greater, meta::StandardTypes::integerMeta.get(), true));
    EXPECT_EQ(query.instances[author].constraints.size(), 1u) << "the two-instance disjunction acts on rows";
    EXPECT_EQ(query.joinGroups.at({0, 1}).size(), 2u);
    EXPECT_EQ(query.joinGroups.at({0, 0}).size(), 1u) << "an associated object of the same instance is a join too";

    // Replayed into another engine, whatever it held: an equal query, apart from the offset.
    NativeKivraQuery copy;
    copy.sortIntrinsic(0, SortDirection::Ascending);
    copy.addSearchClass(Shelf::metaClass(), Mode::ExactClass);
    query.retarget(copy);
    EXPECT_EQ(copy.offset, 0u);
    copy.setResultOffset(query.offset);
    test::expectSameQuery(copy, query);
    // A group never finished is not replayed.
    query.createDisjunction()->addPropertyRelationValue(Book::Impl::titleProperty(), R::equal, text(u"x"), book);
    NativeKivraQuery again;
    query.retarget(again);
    EXPECT_EQ(again.disjunctions.size(), 2u);
}

TEST_F(ReflectiveQueryRecords, ClearKeepsModelAndSort) {
    query.setModel(model);
    query.setResultLimit(2);
    query.setResultOffset(1);
    query.sortIntrinsic(book, SortDirection::Ascending);
    query.addAssociatedObject(Book::Impl::writerProperty(), book, author);
    query.createDisjunction();
    query.clear();
    EXPECT_TRUE(query.instances.empty());
    EXPECT_TRUE(query.joinGroups.empty());
    EXPECT_TRUE(query.disjunctions.empty());
    EXPECT_EQ(query.limit, 0u);
    EXPECT_EQ(query.offset, 0u);
    EXPECT_EQ(query.getModel(), model);
    EXPECT_TRUE(is<IntrinsicSorting>(query.sorting));
    EXPECT_EQ(query.addSearchClass(Shelf::metaClass(), Mode::ExactClass), 0u);
}

template <class M, class F> void expectRaised(F &&call, char const *what) {
    SCOPED_TRACE(what);
    EXPECT_THROW(call(), Error<M>);
}

TEST_F(ReflectiveQueryRecords, NothingOfAFailedCall) {
    auto const pages = Book::Impl::pagesProperty();
    auto const title = Book::Impl::titleProperty();
    Value const hundred(meta::StandardTypes::integerMeta.get(), std::int32_t(100));
    expectRaised<InvalidSearchClass>([&] { query.addSearchClass(meta::Class(), Mode::ExactClass); }, "no class");
    expectRaised<NoSuchInstanceId>([&] { query.addPropertyRelationValue(pages, R::equal, hundred, 2); }, "value");
    expectRaised<NoSuchInstanceId>([&] { query.requireTopLevelElement(2); }, "top");
    expectRaised<NoSuchInstanceId>([&] { query.setSpecificElement(Book::create(model), 2); }, "element");
    expectRaised<NoSuchInstanceId>([&] { query.addAssociatedObject(Book::Impl::writerProperty(), book, 7); }, "join");
    expectRaised<NoSuchInstanceId>([&] { query.createDisjunction()->addPropertyRelationValue(title, R::equal, text(u"x"), 2); },
                                   "disjunction");
    expectRaised<PropertyRelationPropertyTypeMismatch>(
        [&] { query.addPropertyRelationProperty(title, book, R::equal, pages, book); }, "title and pages");
    expectRaised<PropertyRelationPropertyTypeMismatch>(
        [&] { query.addPropertyRelationProperty(title, book, R::equal, Book::Impl::isbnProperty(), book); },
        "String and StdString");
    expectRaised<RelationAndTypeNotSupported>(
        [&] { query.addPropertyRelationProperty(Book::Impl::sequelProperty(), book, R::less, Book::Impl::sequelProperty(), book); },
        "ordered elements");
    expectRaised<RelationAndTypeNotSupported>(
        [&] { query.addPropertyRelationValue(pages, R::regexpSearch, hundred, book); }, "pattern on a number");
    expectRaised<messages::InvalidValue>(
        [&] { query.createDisjunction()->addPropertyRelationValue(title, R::regexpMatch, text(u"(a"), book); },
        "pattern that does not compile");
    expectRaised<messages::InvalidValue>(
        [&] {
            query.addPropertyRelationValue(Book::Impl::isbnProperty(), R::regexpSearch,
                                           Value(meta::StandardTypes::stdstringMeta.get(), std::string("[0-")), book);
        },
        "byte pattern that does not compile");
    expectRaised<LikePatternNotString>([&] { query.addPropertyRelationValue(pages, R::like, hundred, book); }, "like number");
    expectRaised<LikePatternNotSingle>(
        [&] { query.addPropertyRelationValue(title, R::like, Value(meta::StandardTypes::stringMeta.get(), boost::none), book); },
        "like nothing");
    Shelf shelf = Shelf::create(model);
    Value const books = shelf->getPropertyValue(Shelf::Impl::booksProperty(), ReflectiveQuery::privilegedTag);
    expectRaised<PropertyRelationValueNotPrimitive>(
        [&] { query.addPropertyRelationValue(Shelf::Impl::booksProperty(), R::equal, books, book); }, "collection");
    expectRaised<InvalidLimitOffsetValue>([&] { query.setResultLimit(0x80000000); }, "limit");
    expectRaised<InvalidLimitOffsetValue>([&] { query.setResultOffset(std::size_t(-1)); }, "offset");
    expectRaised<UnsupportedSorting>([&] { query.sortByOrdinal(title, book, SortDirection::Ascending); }, "by text");
    expectRaised<UnsupportedSorting>(
        [&] { query.sortByOrdinal(Shelf::Impl::recommendedProperty(), book, SortDirection::Ascending); }, "unordered");
    expectRaised<UnsupportedSorting>(
        [&] { query.sortByOrdinal(Book::Impl::sequelProperty(), book, SortDirection::Ascending); }, "single");

    EXPECT_EQ(query.instances.size(), 2u);
    EXPECT_EQ(query.instances[book].constraints.size(), 1u);
    EXPECT_TRUE(query.joinGroups.empty());
    for (auto const &disjunction : query.disjunctions)
        EXPECT_TRUE(disjunction->constraints.empty());
    EXPECT_EQ(query.limit, 0u);
    EXPECT_FALSE(query.sorting);

    // The accepted edges.
    query.setResultLimit(0x7fffffff);
    query.setResultOffset(0x7fffffff);
    EXPECT_EQ(query.limit, 0x7fffffffu);
    query.sortByOrdinal(Shelf::Impl::booksProperty(), book, SortDirection::Descending);
    EXPECT_TRUE(is<ByOrdinalSorting>(query.sorting));

    // The relation is named as the caller gave it.
    try {
        query.addPropertyRelationValue(Book::Impl::authorProperty(), R::greater,
                                       Value(Author::metaClass(), Author::create(model)), book);
        ADD_FAILURE() << "an element has no order";
    } catch (Error<RelationAndTypeNotSupported> const &e) {
        EXPECT_EQ(e.getMsgID().formatMessage(), u"The relation \"greater\" cannot compare values of type \"Author\".");
    }
}

TEST_F(ReflectiveQueryRecords, SpecificElements) {
    Novel novel = Novel::create(model);
    query.setSpecificElement(novel, book);
    query.setSpecificElement(novel, book);
    EXPECT_EQ(query.instances[book].specificElement, novel);
    EXPECT_THROW(query.setSpecificElement(Book::create(model), book), Error<ConflictingSpecificElements>);
    EXPECT_THROW(query.setSpecificElement(ModelElement(), author), Error<SpecificElementMustExist>);
    try {
        query.setSpecificElement(novel, author);
        ADD_FAILURE() << "a novel is no author";
    } catch (Error<messages::CannotCastIncompatibleTypes> const &e) {
        EXPECT_NE(e.getMsgID().formatMessage().find(u"Author"), basalt::ustring::npos);
    }
    EXPECT_FALSE(query.instances[author].specificElement);

    // A subclass is accepted in ExactClass mode; the class test then drops it at the run.
    std::size_t exact = query.addSearchClass(Book::metaClass(), Mode::ExactClass);
    query.setSpecificElement(novel, exact);
    EXPECT_FALSE(query.instances[exact].constraints[0]->test(*novel.get()));
    EXPECT_TRUE(query.instances[book].constraints[0]->test(*novel.get()));
}

TEST(ReflectiveQuery, RunsNeedInstancesAndAModel) {
    std::unique_ptr<RetargetableQuery> query = createNativeQuery();
    EXPECT_FALSE(query->getModel());
    EXPECT_THROW(query->execute({}), Error<NoSearchInstances>);
    query->addSearchClass(Book::metaClass(), Mode::ClassOrSubclass);
    EXPECT_THROW(query->countResults(), Error<NoModel>);
    EXPECT_THROW(query->getFirstResult(), Error<NoModel>);
    Model model = Model::createTransientModel();
    EXPECT_EQ(static_cast<RetargetableQuery &>(*createNativeQuery(model)).getModel(), model);
}

} // namespace
} // namespace kivra::query
