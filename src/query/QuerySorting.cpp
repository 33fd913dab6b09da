#include "query/QuerySorting.hpp"

#include "query/TypeKinds.hpp"

#include <kivra/Messages.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/StandardTypes.hpp>
#include <kivra/query/ValueComparatorRegistry.hpp>

#include <basalt/ustring.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/uuid/uuid.hpp>

#include <algorithm>
#include <cmath>
#include <compare>
#include <concepts>
#include <numeric>
#include <string>

namespace kivra::query {

QuerySorting::~QuerySorting() = default;

namespace {


// One row's sort key: read once, not at every comparison.
struct SortKey {
    Value value;
    bool present; ///< the row has an element in the sort's column
    bool nan;
};

// The order of the comparator's sort, reached by comparing the native keys themselves: rows
// fall in three bands (no element, an empty value, a value; reversed descending), values
// compare as the registry's ordering of `T` does, and equal keys keep the scan's order.
template <class T> void sortNatively(std::vector<SortKey> const &keys, bool ascending, std::vector<std::size_t> &order) {
    struct Entry {
        T const *key;
        std::size_t band;
        std::size_t row;
    };
    std::vector<Entry> entries;
    entries.reserve(keys.size());
    for (std::size_t row = 0; row < keys.size(); ++row) {
        SortKey const &key = keys[row];
        std::size_t const band = !key.present ? 0 : !key.value.hasPayload() ? 1 : 2;
        entries.push_back({band == 2 ? &key.value.get<T>() : nullptr, ascending ? band : 2 - band, row});
    }
    std::sort(entries.begin(), entries.end(), [ascending](Entry const &a, Entry const &b) {
        if (a.band != b.band)
            return a.band < b.band;
        if (a.key) {
            // One comparison of the keys, not two: texts are the common key.
            if constexpr (std::three_way_comparable<T>) {
                auto const order = *a.key <=> *b.key;
                if (order != 0)
                    return ascending ? order < 0 : order > 0;
            } else {
                if (*a.key < *b.key)
                    return ascending;
                if (*b.key < *a.key)
                    return !ascending;
            }
        }
        return a.row < b.row;
    });
    for (std::size_t i = 0; i < entries.size(); ++i)
        order[i] = entries[i].row;
}

// Whether `type` has a native key that sorts as its comparator does; reals do not, as NaN
// falls outside the order of `<`.
bool sortNatively(meta::Type const &type, std::vector<SortKey> const &keys, bool ascending,
                  std::vector<std::size_t> &order) {
    using meta::StandardTypes;
#define KIVRA_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member)                                              \
    if (type == StandardTypes::member.get() && type != StandardTypes::realMeta.get()) {                                \
        sortNatively<Native>(keys, ascending, order);                                                                  \
        return true;                                                                                                   \
    }
#include <kivra/meta/PrimitiveTypes.def>
    return false;
}

} // namespace

void ByPropertySorting::sort(ResultSet &rows) const {
    if (!property || property->getUpper() > 1 || detail::isClassType(property->getType()))
        raise<UnsupportedSorting>();
    bool const ascending = direction == SortDirection::Ascending;
    meta::Type const type = property->getType();
    ValueComparator const *const comparator = ValueComparatorRegistry::getInstance()->getComparator(
        ascending ? ValueMatchRelation::less : ValueMatchRelation::greater, type, property->getLower() > 0);
    if (!comparator)
        raise<UnsupportedSorting>();

    auto const column = std::find(rows.instanceIds.begin(), rows.instanceIds.end(), instance);
    std::size_t const count = rows.rowCount();
    if (column == rows.instanceIds.end() || count < 2)
        return;
    std::size_t const at = static_cast<std::size_t>(column - rows.instanceIds.begin());

    bool const real = type == meta::StandardTypes::realMeta.get();
    std::vector<SortKey> keys;
    keys.reserve(count);
    for (std::size_t row = 0; row < count; ++row) {
        ModelElement const &element = rows.at(row, at);
        if (!element) {
            keys.push_back({Value(type, boost::none), false, false});
            continue;
        }
        Value value = element->getPropertyValue(property, ReflectiveQuery::privilegedTag);
        bool const nan = real && value.hasPayload() && std::isnan(value.get<double>());
        keys.push_back({std::move(value), true, nan});
    }

    // A row without an element comes first ascending and last descending. NaN, which no
    // relation orders, is placed above every number (and below no empty value), so that
    // the order stays total and the sort well defined.
    auto const before = [&](std::size_t i, std::size_t j) {
        SortKey const &a = keys[i];
        SortKey const &b = keys[j];
        if (a.present != b.present)
            return a.present != ascending;
        if (!a.present)
            return false;
        if (a.nan || b.nan) {
            if (a.nan == b.nan)
                return false;
            return ascending ? b.nan : a.nan;
        }
        return (*comparator)(a.value, b.value);
    };
    std::vector<std::size_t> order(count);
    // A required value that reads empty takes the comparator's own path, and whatever it does.
    bool const native = std::none_of(keys.begin(), keys.end(),
                                     [&](SortKey const &key) {
                                         return key.present && !key.value.hasPayload() && property->getLower() > 0;
                                     }) &&
                        sortNatively(type, keys, ascending, order);
    if (!native) {
        std::iota(order.begin(), order.end(), std::size_t{0});
        // Stable, so that equal keys keep the order of the scan.
        std::stable_sort(order.begin(), order.end(), before);
    }

    std::size_t const width = rows.width();
    std::vector<std::size_t> sorted;
    sorted.reserve(rows.cells.size());
    for (std::size_t const index : order)
        sorted.insert(sorted.end(), rows.row(index), rows.row(index) + width);
    rows.cells = std::move(sorted);
}

void ByPropertySorting::replay(ReflectiveQuery &target) const { target.sortByProperty(property, instance, direction); }

void IntrinsicSorting::sort(ResultSet &) const { raise<UnsupportedSorting>(); }

void IntrinsicSorting::replay(ReflectiveQuery &target) const { target.sortIntrinsic(instance, direction); }

void ByOrdinalSorting::sort(ResultSet &) const { raise<UnsupportedSorting>(); }

void ByOrdinalSorting::replay(ReflectiveQuery &target) const { target.sortByOrdinal(property, instance, direction); }

} // namespace kivra::query
