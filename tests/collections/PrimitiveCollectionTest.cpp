#include "Ledger.hpp"

#include <kivra/Listener.hpp>
#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/ReportData.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Enum.hpp>
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

namespace kivra::test {
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

class PrimitiveCollectionTest : public ::testing::Test {
protected:
    void TearDown() override { removeListener(model, observer); }
    Model model = Model::createTransientModel();
    Ledger ledger = Ledger::create(model);
    Observer observer;
};

TEST_F(PrimitiveCollectionTest, TheRegistryMakesTheCollectionThePropertyFlagsAskFor) {
    auto &numbers = ledger->slot(Ledger::Impl::numbersIndex);
    auto &ranks = ledger->slot(Ledger::Impl::ranksIndex);
    ASSERT_NE(dynamic_cast<PrimitiveSequence<std::int32_t> *>(&numbers), nullptr);
    EXPECT_FALSE(ledger->numbers().isUnique());
    EXPECT_TRUE(ledger->ranks().isUnique());
    EXPECT_NE(dynamic_cast<PrimitiveSet<ustring> *>(&ledger->slot(Ledger::Impl::tagsIndex)), nullptr);
    EXPECT_NE(dynamic_cast<UnorderedPrimitiveSet<boost::uuids::uuid> *>(&ledger->slot(Ledger::Impl::codesIndex)), nullptr);
    EXPECT_EQ(numbers.getCollectionType(), meta::StandardTypes::integerMeta.get());
    EXPECT_EQ(ledger->codes().getCollectionType(), meta::StandardTypes::uuidMeta.get());
    EXPECT_EQ(ledger->labels().getCollectionType(), meta::StandardTypes::stringToStringMapMeta.get());
    EXPECT_EQ(ledger->imports().getCollectionType(), VersionInfo::dataType());
    EXPECT_EQ(numbers.getOwner(), ledger);
    EXPECT_EQ(ranks.getCollectionProperty(), Ledger::Impl::property(Ledger::Impl::ranksIndex));
    // Sets have no indexed or keyed view.
    EXPECT_EQ(ledger->tags().getGenericInterface(), nullptr);
    EXPECT_NE(dynamic_cast<GenericPrimitiveSequenceInterface *>(ledger->numbers().getGenericInterface()), nullptr);
    EXPECT_NE(dynamic_cast<GenericPrimitiveAssociativeInterface *>(ledger->imports().getGenericInterface()), nullptr);
}

TEST_F(PrimitiveCollectionTest, ASequenceKeepsRepeatsUnlessUnique) {
    auto &numbers = ledger->numbers();
    numbers.genericAssign({integer(3), integer(1), integer(3), integer(2)});
    numbers.genericRemove(integer(3));
    EXPECT_EQ(entries(numbers), (std::vector<std::int32_t>{1, 3, 2})) << "the first equal entry goes";
    numbers.genericRemove(integer(9));
    auto &view = static_cast<GenericPrimitiveSequenceInterface &>(*numbers.getGenericInterface());
    view.genericInsert(integer(1), 0);
    view.genericReplace(integer(7), 3);
    EXPECT_EQ(entries(numbers), (std::vector<std::int32_t>{1, 1, 3, 7}));
    EXPECT_EQ(view.genericIndexOf(integer(3)), 2);
    EXPECT_EQ(view.genericIndexOf(integer(4)), -1);
    EXPECT_EQ(view.genericAt(3), integer(7));
    view.genericRemoveAt(0);
    EXPECT_EQ(entries(numbers), (std::vector<std::int32_t>{1, 3, 7}));

    auto &ranks = ledger->ranks();
    ranks.assign({5, 6, 5, 7, 6});
    EXPECT_EQ(entries(ranks), (std::vector<std::int32_t>{5, 6, 7})) << "first occurrences, in list order";
    addListener<ListenerRole::Observer>(model, observer);
    auto &unique = static_cast<GenericPrimitiveSequenceInterface &>(*ranks.getGenericInterface());
    ranks.genericAdd(integer(6));
    unique.genericInsert(integer(7), 0);
    unique.genericReplace(integer(5), 1);
    unique.genericReplace(integer(6), 1); // onto itself
    EXPECT_EQ(entries(ranks), (std::vector<std::int32_t>{5, 6, 7}));
    EXPECT_TRUE(observer.reports.empty()) << "a turned-away entry opens no transaction";
    unique.genericReplace(integer(8), 1);
    EXPECT_EQ(entries(ranks), (std::vector<std::int32_t>{5, 8, 7}));
    EXPECT_EQ(observer.reports.size(), 1u);
}

TEST_F(PrimitiveCollectionTest, BadValuesAndIndicesAreRefusedAndChangeNothing) {
    auto &numbers = ledger->numbers();
    numbers.assign({1, 2});
    auto &view = static_cast<GenericPrimitiveSequenceInterface &>(*numbers.getGenericInterface());
    EXPECT_EQ(incompatibleTypeOf([&] { numbers.genericAdd(text(u"1")); }), u"String");
    EXPECT_EQ(incompatibleTypeOf([&] { numbers.genericAdd(Value(meta::StandardTypes::integerMeta, boost::none)); }),
              u"Integer")
        << "an empty optional has the right type and the wrong shape";
    EXPECT_EQ(incompatibleTypeOf([&] { view.genericInsert(Value(std::int64_t(1)), 0); }), u"Integer64");
    EXPECT_EQ(incompatibleTypeOf([&] { view.genericIndexOf(Value(1.0)); }), u"Real");
    EXPECT_EQ(incompatibleTypeOf([&] { ledger->tags().genericAdd(integer(1)); }), u"Integer");
    EXPECT_EQ(incompatibleTypeOf([&] { ledger->codes().genericRemove(text(u"x")); }), u"String");
    EXPECT_EQ(incompatibleTypeOf([&] { ledger->imports().genericAdd(text(u"x")); }), u"String");
    Value const whole = ledger->getPropertyValue(Ledger::Impl::property(Ledger::Impl::ranksIndex), Tag::PUBLIC_ACCESS);
    EXPECT_EQ(incompatibleTypeOf([&] { numbers.genericAdd(whole); }), u"Integer") << "a collection is no entry";
    EXPECT_EQ(entries(numbers), (std::vector<std::int32_t>{1, 2}));

    EXPECT_THROW(view.genericAt(2), Error<messages::InvalidValue>);
    EXPECT_THROW(view.genericInsert(integer(0), 3), Error<messages::InvalidValue>);
    EXPECT_THROW(view.genericReplace(integer(0), 2), Error<messages::InvalidValue>);
    EXPECT_THROW(view.genericRemoveAt(2), Error<messages::InvalidValue>);
    view.genericInsert(integer(3), 2); // at the end
    EXPECT_EQ(entries(numbers), (std::vector<std::int32_t>{1, 2, 3}));
}

TEST_F(PrimitiveCollectionTest, IntegerEntriesTakeAnEnumsNumberCutToTheirWidth) {
    Transaction transaction = model->beginTransaction();
    meta::Enum const colour = meta::Enum::create(model);
    transaction.commit();
    ledger->numbers().genericAdd(Value(colour, (std::uint64_t(1) << 32) + 5));
    EXPECT_EQ(entries(ledger->numbers()), std::vector<std::int32_t>{5});
    EXPECT_THROW(ledger->tags().genericAdd(Value(colour, std::uint64_t(5))), Error<messages::CannotCastIncompatibleTypes>);
}

TEST_F(PrimitiveCollectionTest, AReflectiveReadGivesTheEntries) {
    ledger->tags().genericAssign({text(u"b"), text(u"a"), text(u"b")});
    Value const tags = ledger->getPropertyValue(Ledger::Impl::property(Ledger::Impl::tagsIndex), Tag::PUBLIC_ACCESS);
    EXPECT_EQ(tags.getFlags(), ValueFlags::SortedSet);
    EXPECT_EQ(tags.extractEntryValues(), (std::vector<Value>{text(u"a"), text(u"b")}));

    // The map of texts travels as one value that points at it.
    Value const labels = ledger->getPropertyValue(Ledger::Impl::property(Ledger::Impl::labelsIndex), Tag::PUBLIC_ACCESS);
    EXPECT_EQ(&StringToStringMap::fromValue(Value(labels)), &ledger->labels());
    StringToStringMap other;
    EXPECT_NE(labels, other.toValue());
    EXPECT_EQ(incompatibleTypeOf([&] { StringToStringMap::fromValue(tags); }), u"String");
    EXPECT_EQ(incompatibleTypeOf([&] { StringToStringMap::fromValue(text(u"a=b")); }), u"String");
}

TEST_F(PrimitiveCollectionTest, TheMapKeepsTheFirstEntryOfAFamily) {
    auto &imports = ledger->imports();
    VersionInfo const core(u"core", u"2"), newer(u"core", u"3"), io(u"io", u"1");
    imports.genericAdd(core.toValue());
    imports.genericAdd(newer.toValue());
    imports.genericAdd(io.toValue());
    EXPECT_EQ(imports.getAllValues(), (std::vector<Value>{core.toValue(), io.toValue()}));
    imports.genericRemove(newer.toValue());
    ASSERT_NE(imports.find(u"core"), nullptr) << "another value under the key stays";
    imports.put(newer);
    EXPECT_EQ(*imports.find(u"core"), newer);
    EXPECT_EQ(VersionInfo::fromValue(Value(ValueMeta(VersionInfo::dataType(), ValueFlags::Single), nullptr, nullptr)),
              VersionInfo()) << "an empty payload reads as two empty texts";

    auto &view = static_cast<GenericPrimitiveAssociativeInterface &>(*imports.getGenericInterface());
    EXPECT_EQ(view.genericFind(text(u"core")), std::vector<Value>{newer.toValue()});
    EXPECT_TRUE(view.genericFind(text(u"none")).empty());
    EXPECT_EQ(view.genericKeys(), (std::vector<Value>{text(u"core"), text(u"io")}));
    EXPECT_EQ(view.genericKeyType(), meta::StandardTypes::stringMeta.get());
    imports.genericRemove(newer.toValue());
    EXPECT_EQ(view.genericKeys(), std::vector<Value>{text(u"io")});
}

TEST_F(PrimitiveCollectionTest, ChangesAreReportedUnderTheirProperty) {
    addListener<ListenerRole::Observer>(model, observer);
    meta::Property const &tags = Ledger::Impl::property(Ledger::Impl::tagsIndex);
    ledger->tags().genericRemove(text(u"absent"));
    ASSERT_EQ(observer.reports.size(), 1u) << "a set's remove is a change even when nothing goes";
    EXPECT_EQ(observer.reports[0]->getChangedProperties(ledger), std::vector<meta::Property>{tags});

    ledger->numbers().genericRemove(integer(4)); // a sequence finds nothing and opens nothing
    ledger->labels().erase(u"absent");
    ledger->labels().insert(u"k", u"v", CollisionResolution::Fail);
    ledger->labels().insert(u"k", u"v", CollisionResolution::Fail);
    ledger->labels().insert(u"k", u"w", CollisionResolution::KeepExisting);
    ASSERT_EQ(observer.reports.size(), 2u);
    EXPECT_EQ(observer.reports[1]->getChangedProperties(ledger),
              std::vector<meta::Property>{Ledger::Impl::property(Ledger::Impl::labelsIndex)});

    Transaction transaction = model->beginRevertibleTransaction();
    ledger->numbers().genericAssign({});
    ledger->numbers().genericAssign({integer(1), integer(2)});
    ledger->codes().genericAdd(Value(boost::uuids::random_generator()()));
    transaction.commit();
    ASSERT_EQ(observer.reports.size(), 3u);
    Report const &last = observer.reports[2];
    EXPECT_TRUE(last->isChanged(ledger, Ledger::Impl::property(Ledger::Impl::numbersIndex)));
    EXPECT_TRUE(last->isChanged(ledger, Ledger::Impl::property(Ledger::Impl::codesIndex)));
    EXPECT_TRUE(last->getOldValue(ledger, Ledger::Impl::property(Ledger::Impl::numbersIndex)).extractEntryValues().empty());
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
// the roll-back must give back exactly what was there.
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
    auto snapshot = [&] {
        Snapshot shot{{}, ledger->labels().toSTLCollection()};
        for (std::uint64_t index : {1, 2, 3, 4, 6})
            shot.values.push_back(static_cast<AbstractPrimitiveCollection &>(ledger->slot(index)).getAllValues());
        // Slot order of the hashed set is no part of its value.
        std::sort(shot.values[3].begin(), shot.values[3].end(),
                  [](Value const &a, Value const &b) { return a.get<boost::uuids::uuid>() < b.get<boost::uuids::uuid>(); });
        return shot;
    };
    auto mutate = [&] {
        auto &numbers = ledger->numbers();
        auto &ranks = ledger->ranks();
        auto &view = static_cast<GenericPrimitiveSequenceInterface &>(*(pick(2) ? numbers : ranks).getGenericInterface());
        auto &sequence = pick(2) ? numbers : ranks;
        std::size_t const size = sequence.size();
        switch (pick(17)) {
        case 0: sequence.genericAdd(integer(pick(5))); break;
        case 1: sequence.genericRemove(integer(pick(5))); break;
        case 2: view.genericInsert(integer(pick(5)), 0); break;
        case 3: if (size) static_cast<GenericPrimitiveSequenceInterface &>(*sequence.getGenericInterface()).genericReplace(integer(pick(5)), size - 1); break;
        case 4: if (size) static_cast<GenericPrimitiveSequenceInterface &>(*sequence.getGenericInterface()).genericRemoveAt(0); break;
        case 5: sequence.assign({pick(5), pick(5), pick(5)}); break;
        case 6: ledger->tags().genericAdd(text(word())); break;
        case 7: ledger->tags().genericRemove(text(word())); break;
        case 8: ledger->codes().genericAdd(Value(uuids[pick(12)])); break;
        case 9: ledger->codes().genericRemove(Value(uuids[pick(12)])); break;
        case 10: ledger->labels().insert(word(), word(), CollisionResolution(1 + pick(2))); break;
        case 11: ledger->labels().erase(word()); break;
        case 12: {
            StringToStringMap other;
            other.insert(word(), word(), CollisionResolution::Replace);
            ledger->labels().merge(other);
            break;
        }
        case 13: ledger->imports().genericAdd(VersionInfo(word(), word()).toValue()); break;
        case 14: ledger->imports().put(VersionInfo(word(), word())); break;
        case 15: static_cast<AbstractPrimitiveCollection &>(ledger->slot(std::uint64_t(1 + pick(4)))).clear(); break;
        default:
            // A failing assignment leaves what it changed to the transaction's roll-back.
            EXPECT_THROW(sequence.genericAssign({integer(pick(5)), text(u"no")}), Error<messages::CannotCastIncompatibleTypes>);
            break;
        }
    };
    for (int round = 0; round < 60; ++round) {
        // Committed changes outside a transaction build up a state to roll back to.
        for (int i = pick(4); i > 0; --i)
            mutate();
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
} // namespace kivra::test
