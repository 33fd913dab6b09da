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
#include <limits>
#include <numeric>
#include <string>
#include <string_view>
#include <type_traits>

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

// Rows whose keys sort as values of `T`, in order; equal keys keep the order of their rows.
// Numbers are copied next to their rows, so that the sort reads no element; other keys are
// compared where they lie.
template <class T> struct KeyedRows {
    static constexpr bool copied = std::is_arithmetic_v<T>;
    struct Entry {
        std::conditional_t<copied, T, T const *> key;
        std::uint32_t row;
    };

    static void sort(std::vector<Entry> &entries, std::vector<T const *> const &keys,
                     std::vector<std::uint32_t> const &rows, bool ascending) {
        entries.reserve(keys.size());
        for (std::size_t i = 0; i < keys.size(); ++i) {
            if constexpr (copied)
                entries.push_back({*keys[i], rows[i]});
            else
                entries.push_back({keys[i], rows[i]});
        }
        auto const key = [](Entry const &entry) -> T const & {
            if constexpr (copied)
                return entry.key;
            else
                return *entry.key;
        };
        std::sort(entries.begin(), entries.end(), [&](Entry const &a, Entry const &b) {
            // One comparison of the keys, not two, where the type has one.
            if constexpr (std::three_way_comparable<T>) {
                auto const order = key(a) <=> key(b);
                if (order != 0)
                    return ascending ? order < 0 : order > 0;
            } else {
                if (key(a) < key(b))
                    return ascending;
                if (key(b) < key(a))
                    return !ascending;
            }
            return a.row < b.row;
        });
    }
};

// Texts: most keys of a result share a long head ("Book 1...", "Writer 2..."), and comparing
// them where they lie reads a scattered element at every step. Each entry carries the eight
// code units that follow the head that all keys share, packed so that comparing the numbers
// compares the units; only keys equal in those are compared in full.
template <> struct KeyedRows<basalt::ustring> {
    struct Entry {
        std::uint64_t high, low;
        char16_t const *text;
        std::uint32_t size;
        std::uint32_t row;
    };

    // The four units of `text` from `from` on. A key that ends early is padded with the
    // lowest unit: it can only tie with a longer one, never pass it, and a tie is settled
    // in full.
    static std::uint64_t pack(std::u16string_view text, std::size_t from) noexcept {
        std::uint64_t packed = 0;
        for (std::size_t i = from; i < from + 4; ++i)
            packed = packed << 16 | (i < text.size() ? text[i] : 0u);
        return packed;
    }

    static std::size_t sameHead(std::u16string_view a, std::u16string_view b, std::size_t bound) noexcept {
        bound = std::min({bound, a.size(), b.size()});
        std::size_t same = 0;
        while (same < bound && a[same] == b[same])
            ++same;
        return same;
    }

    static void sort(std::vector<Entry> &entries, std::vector<basalt::ustring const *> const &keys,
                     std::vector<std::uint32_t> const &rows, bool ascending) {
        if (keys.empty())
            return;
        // The shared head is guessed from a few keys and checked on every key as it is
        // packed, so that each text is read once; only a wrong guess packs them again.
        std::u16string_view const first = *keys.front();
        std::size_t shared = first.size();
        std::size_t const step = std::max<std::size_t>(1, keys.size() / 16);
        for (std::size_t i = step; i < keys.size(); i += step)
            shared = sameHead(first, *keys[i], shared);
        std::size_t const guess = shared;
        entries.resize(keys.size());
        // The texts lie in their elements, scattered: the next ones are fetched while this
        // one is read.
        constexpr std::size_t ahead = 8;
        for (std::size_t i = 0; i < keys.size(); ++i) {
            if (i + ahead < keys.size())
                __builtin_prefetch(keys[i + ahead]);
            std::u16string_view const text = *keys[i];
            shared = sameHead(first, text, shared);
            entries[i] = {pack(text, guess), pack(text, guess + 4), text.data(), static_cast<std::uint32_t>(text.size()),
                          rows[i]};
        }
        if (shared != guess)
            for (Entry &entry : entries) {
                std::u16string_view const text(entry.text, entry.size);
                entry.high = pack(text, shared);
                entry.low = pack(text, shared + 4);
            }
        for (Entry &entry : entries) {
            entry.text += shared;
            entry.size -= static_cast<std::uint32_t>(shared);
        }
        std::sort(entries.begin(), entries.end(), [ascending](Entry const &a, Entry const &b) {
            if (a.high != b.high)
                return (a.high < b.high) == ascending;
            if (a.low != b.low)
                return (a.low < b.low) == ascending;
            int const order = std::u16string_view(a.text, a.size).compare(std::u16string_view(b.text, b.size));
            if (order != 0)
                return (order < 0) == ascending;
            return a.row < b.row;
        });
    }
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
    std::size_t const count = rows.rowCount();
    if (count > std::numeric_limits<std::uint32_t>::max())
        return false;
    meta::Property::Impl const &described = *property.get();
    bool const required = property->getLower() > 0;
    std::deque<Value> held;
    // The rows of each band, in their order; values with their keys.
    std::vector<std::uint32_t> missing, empty, valued;
    std::vector<T const *> keys;
    valued.reserve(count);
    keys.reserve(count);
    // The elements of a result lie scattered over the model: the next ones are fetched while
    // this one is read.
    constexpr std::size_t ahead = 8;
    for (std::size_t row = 0; row < count; ++row) {
        if (row + ahead < count)
            __builtin_prefetch(rows.element(row + ahead, column));
        ModelElement::Impl const *const element = rows.element(row, column);
        auto const index = static_cast<std::uint32_t>(row);
        if (!element || !element->isValid()) {
            missing.push_back(index);
            continue;
        }
        T const *key = static_cast<T const *>(element->nativeValueAddress(described));
        if (!key) {
            Value const &value = held.emplace_back(element->getPropertyValue(property, ReflectiveQuery::privilegedTag));
            if (!value.hasPayload()) {
                if (required)
                    return false;
                empty.push_back(index);
                continue;
            }
            key = &value.get<T>();
        }
        valued.push_back(index);
        keys.push_back(key);
    }
    std::vector<typename KeyedRows<T>::Entry> entries;
    KeyedRows<T>::sort(entries, keys, valued, ascending);
    auto out = order.begin();
    auto const append = [&out](std::vector<std::uint32_t> const &band) { out = std::copy(band.begin(), band.end(), out); };
    if (ascending) {
        append(missing);
        append(empty);
    }
    for (auto const &entry : entries)
        *out++ = entry.row;
    if (!ascending) {
        append(empty);
        append(missing);
    }
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
            ModelElement::Impl const *const element = rows.element(row, at);
            if (!element || !element->isValid()) {
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
    Cells sorted(rows.cells.size());
    Cell *to = sorted.data();
    for (std::size_t const index : order)
        to = std::copy_n(rows.row(index), width, to);
    rows.cells = std::move(sorted);
}

void ByPropertySorting::replay(ReflectiveQuery &target) const { target.sortByProperty(property, instance, direction); }

void IntrinsicSorting::sort(ResultSet &) const { raise<UnsupportedSorting>(); }

void IntrinsicSorting::replay(ReflectiveQuery &target) const { target.sortIntrinsic(instance, direction); }

void ByOrdinalSorting::sort(ResultSet &) const { raise<UnsupportedSorting>(); }

void ByOrdinalSorting::replay(ReflectiveQuery &target) const { target.sortByOrdinal(property, instance, direction); }

} // namespace kivra::query
