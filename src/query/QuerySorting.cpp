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
#include <deque>
#include <numeric>
#include <string>

namespace kivra::query {

QuerySorting::~QuerySorting() = default;

namespace {


// One row's sort key, where the native path cannot take it: read once, not at every
// comparison.
struct SortKey {
    Value value;
    bool present; ///< the row has an element in the sort's column
    bool nan;
};

// The order of the comparator's sort, reached by comparing native keys read in place: rows
// fall in three bands (no element, an empty value, a value; reversed descending), values
// compare as the registry's ordering of `T` does, and equal keys keep the scan's order. An
// element that does not show its member is read as a `Value`, kept in `held` for the sort.
// False, with `order` untouched, when a required value reads empty: the comparator's own path
// takes that.
template <class T>
bool sortNatively(ResultSet const &rows, std::size_t column, meta::Property const &property, bool ascending,
                  std::vector<std::size_t> &order) {
    struct Entry {
        T const *key;
        std::size_t band;
        std::size_t row;
    };
    std::size_t const count = rows.rowCount();
    meta::Property::Impl const &described = *property.get();
    bool const required = property->getLower() > 0;
    std::deque<Value> held;
    std::vector<Entry> entries;
    entries.reserve(count);
    // The elements of a result lie scattered over the model: the next ones are fetched while
    // this one is read.
    constexpr std::size_t ahead = 8;
    for (std::size_t row = 0; row < count; ++row) {
        if (row + ahead < count)
            __builtin_prefetch(rows.at(row + ahead, column).get());
        ModelElement const &element = rows.at(row, column);
        std::size_t band = 0;
        T const *key = nullptr;
        if (element) {
            band = 2;
            key = static_cast<T const *>(element->nativeValueAddress(described));
            if (!key) {
                Value const &value = held.emplace_back(element->getPropertyValue(property, ReflectiveQuery::privilegedTag));
                if (!value.hasPayload()) {
                    if (required)
                        return false;
                    band = 1;
                } else {
                    key = &value.get<T>();
                }
            }
        }
        entries.push_back({key, ascending ? band : 2 - band, row});
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
    return true;
}

// Whether the property's type has a native key that sorts as its comparator does, and the
// sort ran on it; reals do not, as NaN falls outside the order of `<`.
bool sortNatively(meta::Type const &type, ResultSet const &rows, std::size_t column, meta::Property const &property,
                  bool ascending, std::vector<std::size_t> &order) {
    using meta::StandardTypes;
#define KIVRA_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member)                                              \
    if (type == StandardTypes::member.get() && type != StandardTypes::realMeta.get())                                  \
        return sortNatively<Native>(rows, column, property, ascending, order);
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

    std::vector<std::size_t> order(count);
    if (!sortNatively(type, rows, at, property, ascending, order)) {
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
