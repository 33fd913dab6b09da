
#include <library/Author.hpp>
#include <library/Book.hpp>
#include <library/Shelf.hpp>

#include <kivra/PrimitiveCollection.hpp>
#include <kivra/StringToStringMap.hpp>
#include <kivra/Listener.hpp>
#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/ReportData.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Enum.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/StandardTypes.hpp>

#include <gtest/gtest.h>

#include <boost/none.hpp>
#include <boost/uuid/random_generator.hpp>

#include <map>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace kivra::test::library {
namespace {

using basalt::ustring;
using meta::VersionInfo;
using Tag = ModelElement::Impl::ReflectionPrivateTag;
using Report = std::shared_ptr<ReportData>;

Value integer(std::int32_t n) { return Value(meta::StandardTypes::integerMeta, n); }
Value text(ustring const &s) { return Value(meta::StandardTypes::stringMeta, s); }

std::vector<std::int32_t> entries(PrimitiveSequence<std::int32_t> const &sequence) {
    return {sequence.begin(), sequence.end()};
}

/// The argument of the `CannotCastIncompatibleTypes` that `write` raises.
template <class F> ustring incompatibleTypeOf(F &&write) {
    try {
        write();
    } catch (Error<messages::CannotCastIncompatibleTypes> const &error) {
        return std::get<ustring>(error.getRecord().getArguments().at(0));
    }
    ADD_FAILURE() << "no CannotCastIncompatibleTypes";
    return u"";
}

struct Observer : Listener {
    std::vector<Report> reports;
    void transactionCommitted(Report const &report) { reports.push_back(report); }
};

// A shelf, an author and a book of the library, whose multi-valued properties of values
// cover each collection: `ratings` a list, `tags` a unique list, `pseudonyms` a sorted set,
// `visits` and `codes` hashed sets, `sources` the map keyed by family, `labels` a map of texts.
class PrimitiveCollectionTest : public ::testing::Test {
protected:
    void TearDown() override { removeListener(model, observer); }
    Model model = Model::createTransientModel();
    Shelf shelf = Shelf::create(model);
    Author author = Author::create(model);
    Book book = Book::create(model);
    Observer observer;
};

TEST_F(PrimitiveCollectionTest, TheRegistryMakesTheCollectionThePropertyFlagsAskFor) {
    meta::MetaRegistry &registry = *meta::MetaRegistry::getInstance();
    auto make = [&](ModelElement const &owner, meta::Property const &property) {
        return std::unique_ptr<AbstractOwnedCollection>(registry.instantiateDynamicCollection(owner, property));
    };
    auto const ratings = make(author, Author::Impl::ratingsProperty());
    auto const tags = make(book, Book::Impl::tagsProperty());
    auto const *sequence = dynamic_cast<PrimitiveSequence<std::int32_t> *>(ratings.get());
    ASSERT_NE(sequence, nullptr);
    EXPECT_FALSE(sequence->isUnique());
    EXPECT_TRUE(dynamic_cast<PrimitiveSequence<ustring> &>(*tags).isUnique());
    EXPECT_NE(dynamic_cast<PrimitiveSet<std::string> *>(make(author, Author::Impl::pseudonymsProperty()).get()), nullptr);
    EXPECT_NE(dynamic_cast<UnorderedPrimitiveSet<boost::uuids::uuid> *>(make(author, Author::Impl::visitsProperty()).get()),
              nullptr);
    EXPECT_EQ(ratings->getOwner(), author);
    EXPECT_EQ(tags->getCollectionProperty(), Book::Impl::tagsProperty());

    // Sets have no indexed or keyed view.
    EXPECT_EQ(author->getPseudonyms().getGenericInterface(), nullptr);
    EXPECT_NE(dynamic_cast<GenericPrimitiveSequenceInterface *>(author->getRatings().getGenericInterface()), nullptr);
    EXPECT_NE(dynamic_cast<GenericPrimitiveAssociativeInterface *>(shelf->getSources().getGenericInterface()), nullptr);
}

TEST_F(PrimitiveCollectionTest, ASequenceKeepsRepeatsUnlessUnique) {
    auto &ratings = author->getRatingsMutable();
    ratings.genericAssign({integer(3), integer(1), integer(3), integer(2)});
    ratings.genericRemove(integer(3));
    EXPECT_EQ(entries(ratings), (std::vector<std::int32_t>{1, 3, 2})) << "the first equal entry goes";
    ratings.genericRemove(integer(9));
    auto &view = static_cast<GenericPrimitiveSequenceInterface &>(*ratings.getGenericInterface());
    view.genericInsert(integer(1), 0);
    view.genericReplace(integer(7), 3);
    EXPECT_EQ(entries(ratings), (std::vector<std::int32_t>{1, 1, 3, 7}));
    EXPECT_EQ(view.genericIndexOf(integer(3)), 2);
    EXPECT_EQ(view.genericIndexOf(integer(4)), -1);
    EXPECT_EQ(view.genericAt(3), integer(7));
    view.genericRemoveAt(0);
    EXPECT_EQ(entries(ratings), (std::vector<std::int32_t>{1, 3, 7}));

    auto &tags = book->getTagsMutable();
    tags.assign({u"e", u"f", u"e", u"g", u"f"});
    EXPECT_EQ(std::vector<ustring>(tags.begin(), tags.end()), (std::vector<ustring>{u"e", u"f", u"g"}))
        << "first occurrences, in list order";
    addListener<ListenerRole::Observer>(model, observer);
    auto &unique = static_cast<GenericPrimitiveSequenceInterface &>(*tags.getGenericInterface());
    tags.genericAdd(text(u"f"));
    unique.genericInsert(text(u"g"), 0);
    unique.genericReplace(text(u"e"), 1);
    unique.genericReplace(text(u"f"), 1); // onto itself
    EXPECT_EQ(std::vector<ustring>(tags.begin(), tags.end()), (std::vector<ustring>{u"e", u"f", u"g"}));
    EXPECT_TRUE(observer.reports.empty()) << "a turned-away entry opens no transaction";
    unique.genericReplace(text(u"h"), 1);
    EXPECT_EQ(std::vector<ustring>(tags.begin(), tags.end()), (std::vector<ustring>{u"e", u"h", u"g"}));
    EXPECT_EQ(observer.reports.size(), 1u);
}

TEST_F(PrimitiveCollectionTest, BadValuesAndIndicesAreRefusedAndChangeNothing) {
    auto &ratings = author->getRatingsMutable();
    ratings.assign({1, 2});
    auto &view = static_cast<GenericPrimitiveSequenceInterface &>(*ratings.getGenericInterface());
    EXPECT_EQ(incompatibleTypeOf([&] { ratings.genericAdd(text(u"1")); }), u"String");
    EXPECT_EQ(incompatibleTypeOf([&] { ratings.genericAdd(Value(meta::StandardTypes::integerMeta, boost::none)); }),
              u"Integer")
        << "an empty optional has the right type and the wrong shape";
    EXPECT_EQ(incompatibleTypeOf([&] { view.genericInsert(Value(std::int64_t(1)), 0); }), u"Integer64");
    EXPECT_EQ(incompatibleTypeOf([&] { view.genericIndexOf(Value(1.0)); }), u"Real");
    EXPECT_EQ(incompatibleTypeOf([&] { author->getPseudonymsMutable().genericAdd(integer(1)); }), u"Integer");
    EXPECT_EQ(incompatibleTypeOf([&] { author->getVisitsMutable().genericRemove(text(u"x")); }), u"String");
    EXPECT_EQ(incompatibleTypeOf([&] { shelf->getSourcesMutable().genericAdd(text(u"x")); }), u"String");
    Value const whole = shelf->getPropertyValue(Shelf::Impl::codesProperty(), Tag::PUBLIC_ACCESS);
    EXPECT_EQ(incompatibleTypeOf([&] { ratings.genericAdd(whole); }), u"Integer") << "a collection is no entry";
    EXPECT_EQ(entries(ratings), (std::vector<std::int32_t>{1, 2}));

    EXPECT_THROW(view.genericAt(2), Error<messages::InvalidValue>);
    EXPECT_THROW(view.genericInsert(integer(0), 3), Error<messages::InvalidValue>);
    EXPECT_THROW(view.genericReplace(integer(0), 2), Error<messages::InvalidValue>);
    EXPECT_THROW(view.genericRemoveAt(2), Error<messages::InvalidValue>);
    view.genericInsert(integer(3), 2); // at the end
    EXPECT_EQ(entries(ratings), (std::vector<std::int32_t>{1, 2, 3}));
}

TEST_F(PrimitiveCollectionTest, IntegerEntriesTakeAnEnumsNumberCutToTheirWidth) {
    Transaction transaction = model->beginTransaction();
    meta::Enum const colour = meta::Enum::create(model);
    transaction.commit();
    author->getRatingsMutable().genericAdd(Value(colour, (std::uint64_t(1) << 32) + 5));
    EXPECT_EQ(entries(author->getRatings()), std::vector<std::int32_t>{5});
    EXPECT_THROW(book->getTagsMutable().genericAdd(Value(colour, std::uint64_t(5))),
                 Error<messages::CannotCastIncompatibleTypes>);
}

// Reads and writes through `Value` see what the typed accessors see, for each access mode.
TEST_F(PrimitiveCollectionTest, ReflectiveAccessAgreesWithTheTypedAccessors) {
    for (Tag const *tag : {&Tag::PUBLIC_ACCESS, &Tag::IN_MEMORY_ONLY})
        EXPECT_FALSE(author->hasPropertyValue(Author::Impl::pseudonymsProperty(), *tag));
    author->getPseudonymsMutable().genericAssign({Value(std::string("b")), Value(std::string("a")), Value(std::string("b"))});
    Value const pseudonyms = author->getPropertyValue(Author::Impl::pseudonymsProperty(), Tag::PUBLIC_ACCESS);
    EXPECT_EQ(pseudonyms.getFlags(), ValueFlags::SortedSet);
    EXPECT_EQ(pseudonyms.extractEntryValues(), (std::vector<Value>{Value(std::string("a")), Value(std::string("b"))}));
    EXPECT_TRUE(author->hasPropertyValue(Author::Impl::pseudonymsProperty(), Tag::NO_PROXY_RESOLVE));
    EXPECT_EQ(shelf->getPropertyValue(Shelf::Impl::codesProperty(), Tag::IN_MEMORY_ONLY).getFlags(), ValueFlags::HashSet);
    EXPECT_EQ(book->getPropertyValue(Book::Impl::tagsProperty(), Tag::PUBLIC_ACCESS).getFlags(), ValueFlags::Sequence);

    // A write replaces the contents by the entries of the value, by the collection's rules.
    book->setPropertyValue(Book::Impl::tagsProperty(), Value(ustring(u"solo")), Tag::PUBLIC_ACCESS);
    EXPECT_EQ(std::vector<ustring>(book->getTags().begin(), book->getTags().end()), std::vector<ustring>{u"solo"});
    author->getRatingsMutable().assign({4, 4, 2});
    Author const other = Author::create(model);
    other->setPropertyValue(Author::Impl::ratingsProperty(),
                            author->getPropertyValue(Author::Impl::ratingsProperty(), Tag::PUBLIC_ACCESS), Tag::PUBLIC_ACCESS);
    EXPECT_EQ(entries(other->getRatings()), (std::vector<std::int32_t>{4, 4, 2}));
    // Its own view written back changes nothing, rather than emptying itself first.
    other->setPropertyValue(Author::Impl::ratingsProperty(),
                            other->getPropertyValue(Author::Impl::ratingsProperty(), Tag::PUBLIC_ACCESS), Tag::PUBLIC_ACCESS);
    EXPECT_EQ(entries(other->getRatings()), (std::vector<std::int32_t>{4, 4, 2}));
    EXPECT_THROW(other->setPropertyValue(Author::Impl::ratingsProperty(), text(u"x"), Tag::PUBLIC_ACCESS),
                 Error<messages::CannotCastIncompatibleTypes>);
    EXPECT_EQ(entries(other->getRatings()), (std::vector<std::int32_t>{4, 4, 2})) << "a failed write keeps the old entries";

    // The map of texts travels as one value that points at it, and no other value reads as one.
    EXPECT_NE(shelf->getPropertyValue(Shelf::Impl::labelsProperty(), Tag::PUBLIC_ACCESS), StringToStringMap().toValue());
    EXPECT_EQ(incompatibleTypeOf([&] { StringToStringMap::fromValue(pseudonyms); }), u"StdString");
    EXPECT_EQ(incompatibleTypeOf([&] { StringToStringMap::fromValue(text(u"a=b")); }), u"String");
}

TEST_F(PrimitiveCollectionTest, TheMapKeepsTheFirstEntryOfAFamily) {
    auto &sources = shelf->getSourcesMutable();
    VersionInfo const core(u"core", u"2"), newer(u"core", u"3"), io(u"io", u"1");
    sources.genericAdd(core.toValue());
    sources.genericAdd(newer.toValue());
    sources.genericAdd(io.toValue());
    EXPECT_EQ(sources.getAllValues(), (std::vector<Value>{core.toValue(), io.toValue()}));
    sources.genericRemove(newer.toValue());
    ASSERT_NE(sources.find(u"core"), nullptr) << "another value under the key stays";
    sources.put(newer);
    EXPECT_EQ(*sources.find(u"core"), newer);
    EXPECT_EQ(VersionInfo::fromValue(Value(ValueMeta(VersionInfo::dataType(), ValueFlags::Single), nullptr, nullptr)),
              VersionInfo()) << "an empty payload reads as two empty texts";

    auto &view = static_cast<GenericPrimitiveAssociativeInterface &>(*sources.getGenericInterface());
    EXPECT_EQ(view.genericFind(text(u"core")), std::vector<Value>{newer.toValue()});
    EXPECT_TRUE(view.genericFind(text(u"none")).empty());
    EXPECT_EQ(view.genericKeys(), (std::vector<Value>{text(u"core"), text(u"io")}));
    EXPECT_EQ(view.genericKeyType(), meta::StandardTypes::stringMeta.get());
    sources.genericRemove(newer.toValue());
    EXPECT_EQ(view.genericKeys(), std::vector<Value>{text(u"io")});
}

TEST_F(PrimitiveCollectionTest, ChangesAreReportedUnderTheirPropertyWithTheOldEntries) {
    author->getPseudonymsMutable().insert("old");
    addListener<ListenerRole::Observer>(model, observer);
    author->getPseudonymsMutable().genericRemove(Value(std::string("absent")));
    ASSERT_EQ(observer.reports.size(), 1u) << "a set's remove is a change even when nothing goes";
    EXPECT_EQ(observer.reports[0]->getChangedProperties(author),
              std::vector<meta::Property>{Author::Impl::pseudonymsProperty()});

    author->getRatingsMutable().genericRemove(integer(4)); // a sequence finds nothing and opens nothing
    shelf->getLabelsMutable().erase(u"absent");
    shelf->getLabelsMutable().insert(u"k", u"v", CollisionResolution::Fail);
    shelf->getLabelsMutable().insert(u"k", u"v", CollisionResolution::Fail);
    shelf->getLabelsMutable().insert(u"k", u"w", CollisionResolution::KeepExisting);
    ASSERT_EQ(observer.reports.size(), 2u);
    EXPECT_EQ(observer.reports[1]->getChangedProperties(shelf), std::vector<meta::Property>{Shelf::Impl::labelsProperty()});

    Transaction transaction = model->beginRevertibleTransaction();
    author->getRatingsMutable().genericAssign({});
    author->getRatingsMutable().genericAssign({integer(1), integer(2)});
    author->getVisitsMutable().genericAdd(Value(boost::uuids::random_generator()()));
    author->getPseudonymsMutable().erase("old");
    shelf->getLabelsMutable().insert(u"k", u"x", CollisionResolution::Replace);
    shelf->getSourcesMutable().add(VersionInfo(u"core", u"1"));
    transaction.commit();
    ASSERT_EQ(observer.reports.size(), 3u);
    Report const &last = observer.reports[2];
    EXPECT_TRUE(last->isChanged(author, Author::Impl::ratingsProperty()));
    EXPECT_TRUE(last->isChanged(author, Author::Impl::visitsProperty()));
    EXPECT_FALSE(last->isChanged(book, Book::Impl::tagsProperty()));
    // Old entries of collections made before, and of collections made in the transaction.
    EXPECT_TRUE(last->getOldValue(author, Author::Impl::ratingsProperty()).extractEntryValues().empty());
    EXPECT_TRUE(last->getOldValue(author, Author::Impl::visitsProperty()).extractEntryValues().empty());
    EXPECT_EQ(last->getOldValue(author, Author::Impl::pseudonymsProperty()).extractEntryValues(),
              std::vector<Value>{Value(std::string("old"))});
    EXPECT_TRUE(last->getOldValue(shelf, Shelf::Impl::sourcesProperty()).extractEntryValues().empty());
    Value const oldLabels = last->getOldValue(shelf, Shelf::Impl::labelsProperty());
    EXPECT_EQ(StringToStringMap::fromValue(oldLabels).at(u"k"), u"v");
}

TEST(StringToStringMap, InsertSettlesCollisionsBeforeAnyChange) {
    StringToStringMap map;
    map.insert(u"a", u"1", CollisionResolution::Fail);
    map.insert(u"a", u"1", CollisionResolution::Fail); // same value: no collision
    EXPECT_THROW(map.insert(u"a", u"2", CollisionResolution::Fail), Error<messages::UniquenessConstraint>);
    map.insert(u"a", u"2", CollisionResolution::KeepExisting);
    EXPECT_EQ(map.at(u"a"), u"1");
    map.insert(u"a", u"2", CollisionResolution::Replace);
    EXPECT_EQ(map.at(u"a"), u"2");
    try {
        map.at(u"b");
        ADD_FAILURE();
    } catch (std::out_of_range const &error) {
        EXPECT_STREQ(error.what(), "invalid unordered_map<K, T> key");
    }

    StringToStringMap other;
    other.insert(u"a", u"3", CollisionResolution::Fail);
    other.insert(u"b", u"4", CollisionResolution::Fail);
    map.merge(other);
    EXPECT_EQ(map, other) << "the other's values win";
    StringToStringMap::Container source{{u"x", u"y"}};
    map.assign(std::move(source));
    EXPECT_TRUE(source.empty());
    EXPECT_EQ(map.size(), 1u);
    EXPECT_EQ(map.erase(u"none"), 0u);
    EXPECT_EQ(map.erase(map.begin()), map.end());
    EXPECT_TRUE(map.empty());
}

// Random mutations of every collection, typed and untyped, inside a revertible transaction;
// the roll-back must give back exactly what was there, collections never made included.
TEST_F(PrimitiveCollectionTest, RollBackRestoresEveryMutation) {
    std::mt19937 random(20240601);
    std::vector<boost::uuids::uuid> uuids(12);
    boost::uuids::random_generator make;
    for (auto &uuid : uuids)
        uuid = make();
    auto pick = [&](int n) { return int(random() % unsigned(n)); };
    auto word = [&] { return ustring(1, char16_t(u'a' + pick(6))); };
    struct Snapshot {
        std::vector<std::vector<Value>> values;
        StringToStringMap::Container labels;
        bool operator==(Snapshot const &) const = default;
    };
    // Read without making a collection: one never made must stay unmade or come back empty.
    auto read = [](ModelElement const &element, meta::Property const &property) {
        return element->getPropertyValue(property, Tag::IN_MEMORY_ONLY).extractEntryValues();
    };
    auto sorted = [](std::vector<Value> values, auto key) {
        // Slot order of a hashed set is no part of its value.
        std::sort(values.begin(), values.end(), [&](Value const &a, Value const &b) { return key(a) < key(b); });
        return values;
    };
    auto snapshot = [&] {
        Snapshot shot{{}, shelf->hasLabels() ? shelf->getLabels().toSTLCollection() : StringToStringMap::Container()};
        shot.values.push_back(read(author, Author::Impl::ratingsProperty()));
        shot.values.push_back(read(book, Book::Impl::tagsProperty()));
        shot.values.push_back(read(author, Author::Impl::pseudonymsProperty()));
        shot.values.push_back(sorted(read(author, Author::Impl::visitsProperty()),
                                     [](Value const &v) { return v.get<boost::uuids::uuid>(); }));
        shot.values.push_back(sorted(read(shelf, Shelf::Impl::codesProperty()), [](Value const &v) { return v.get<std::int32_t>(); }));
        shot.values.push_back(read(shelf, Shelf::Impl::sourcesProperty()));
        return shot;
    };
    auto mutate = [&] {
        auto &ratings = author->getRatingsMutable();
        auto &tags = book->getTagsMutable();
        auto &ratingsView = static_cast<GenericPrimitiveSequenceInterface &>(*ratings.getGenericInterface());
        auto &tagsView = static_cast<GenericPrimitiveSequenceInterface &>(*tags.getGenericInterface());
        switch (pick(24)) {
        case 0: ratings.genericAdd(integer(pick(5))); break;
        case 1: ratings.genericRemove(integer(pick(5))); break;
        case 2: ratingsView.genericInsert(integer(pick(5)), 0); break;
        case 3: if (ratings.size()) ratingsView.genericReplace(integer(pick(5)), ratings.size() - 1); break;
        case 4: if (ratings.size()) ratingsView.genericRemoveAt(0); break;
        case 5: ratings.assign({pick(5), pick(5), pick(5)}); break;
        case 6: tags.push_back(word()); break;
        case 7: tagsView.genericInsert(text(word()), 0); break;
        case 8: if (tags.size()) tags.replace(tags.size() - 1, word()); break;
        case 9: tags.remove(word()); break;
        case 10: author->getPseudonymsMutable().genericAdd(Value(std::string(1, char('a' + pick(6))))); break;
        case 11: author->getPseudonymsMutable().erase(std::string(1, char('a' + pick(6)))); break;
        case 12: author->getVisitsMutable().genericAdd(Value(uuids[pick(12)])); break;
        case 13: author->getVisitsMutable().genericRemove(Value(uuids[pick(12)])); break;
        case 14: shelf->getCodesMutable().insert(pick(40)); break;
        case 15: shelf->getCodesMutable().erase(pick(40)); break;
        case 16: shelf->getLabelsMutable().insert(word(), word(), CollisionResolution(1 + pick(2))); break;
        case 17: shelf->getLabelsMutable().erase(word()); break;
        case 18: {
            StringToStringMap other;
            other.insert(word(), word(), CollisionResolution::Replace);
            shelf->setPropertyValue(Shelf::Impl::labelsProperty(), other.toValue(), Tag::PUBLIC_ACCESS);
            break;
        }
        case 19: shelf->getSourcesMutable().genericAdd(VersionInfo(word(), word()).toValue()); break;
        case 20: shelf->getSourcesMutable().put(VersionInfo(word(), word())); break;
        case 21: {
            AbstractPrimitiveCollection *all[] = {&ratings, &tags, &author->getPseudonymsMutable(), &author->getVisitsMutable(),
                                                  &shelf->getCodesMutable(), &shelf->getSourcesMutable()};
            all[pick(6)]->clear();
            break;
        }
        case 22:
            book->setPropertyValue(Book::Impl::tagsProperty(), text(word()), Tag::PUBLIC_ACCESS);
            break;
        default:
            // A failing assignment leaves what it changed to the transaction's roll-back.
            EXPECT_THROW(ratings.genericAssign({integer(pick(5)), text(u"no")}), Error<messages::CannotCastIncompatibleTypes>);
            break;
        }
    };
    for (int round = 0; round < 80; ++round) {
        // Committed changes outside a transaction build up a state to roll back to; now and
        // then the elements start afresh, their collections never made.
        if (round % 20 == 0) {
            shelf = Shelf::create(model);
            author = Author::create(model);
            book = Book::create(model);
        } else {
            for (int i = pick(4); i > 0; --i)
                mutate();
        }
        Snapshot const before = snapshot();
        Transaction transaction = model->beginRevertibleTransaction();
        for (int i = 1 + pick(12); i > 0; --i)
            mutate();
        transaction.rollBack();
        ASSERT_EQ(snapshot(), before) << "round " << round;
    }
}

TEST(FlatHashSet, AgreesWithAnOrderedSetThroughInsertsAndErases) {
    // Small consecutive integers hash to themselves: long runs, and erases that pull them back.
    detail::FlatHashSet<std::int32_t, services::hashers::KivraHasher<std::int32_t>> set;
    std::set<std::int32_t> reference;
    std::mt19937 random(7);
    for (int i = 0; i < 20000; ++i) {
        std::int32_t const value = std::int32_t(random() % 512);
        if (random() % 3)
            EXPECT_EQ(set.insert(value), reference.insert(value).second);
        else
            EXPECT_EQ(set.erase(value), reference.erase(value));
    }
    EXPECT_EQ(set.size(), reference.size());
    for (std::int32_t value = 0; value < 512; ++value)
        ASSERT_EQ(set.contains(value), reference.count(value) == 1) << value;
    EXPECT_EQ(std::set<std::int32_t>(set.begin(), set.end()), reference);
}

} // namespace
} // namespace kivra::test::library
