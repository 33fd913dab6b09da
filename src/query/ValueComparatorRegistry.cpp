#include <kivra/query/ValueComparatorRegistry.hpp>

#include "query/TypeKinds.hpp"

#include <kivra/ModelElement.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/Enum.hpp>
#include <kivra/meta/PrimitiveType.hpp>
#include <kivra/meta/StandardTypes.hpp>

#include <basalt/i18n/Unicode.hpp>
#include <basalt/regex/Regex.hpp>

#include <absl/container/flat_hash_map.h>
#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <cstdint>
#include <functional>
#include <locale>
#include <regex>
#include <string>
#include <utility>

namespace kivra::query {

std::string_view ValueMatchRelationName(ValueMatchRelation relation) noexcept {
    switch (relation) {
    case ValueMatchRelation::equal: return "equal";
    case ValueMatchRelation::equalStringNocase: return "equalStringNocase";
    case ValueMatchRelation::notEqual: return "notEqual";
    case ValueMatchRelation::greater: return "greater";
    case ValueMatchRelation::greaterOrEqual: return "greaterOrEqual";
    case ValueMatchRelation::less: return "less";
    case ValueMatchRelation::lessOrEqual: return "lessOrEqual";
    case ValueMatchRelation::like: return "like";
    case ValueMatchRelation::regexpMatch: return "regexpMatch";
    case ValueMatchRelation::regexpSearch: return "regexpSearch";
    }
    return {};
}

namespace {

using R = ValueMatchRelation;

// --- primitive comparisons ---------------------------------------------------------------

template <class T, class Op> bool required(Value const &left, Value const &right) {
    return Op{}(left.get<T>(), right.get<T>());
}

// Without `required` an empty value stands below every value and two empty values are
// equal; the relations are spelt out one by one so that each keeps that order on its own.
bool optionalEqual(Value const &left, Value const &right) { return left == right; }
bool optionalNotEqual(Value const &left, Value const &right) { return !(left == right); }

template <class T> bool optionalGreater(Value const &left, Value const &right) {
    if (!left.hasPayload())
        return false;
    if (!right.hasPayload())
        return true;
    return left.get<T>() > right.get<T>();
}
template <class T> bool optionalLess(Value const &left, Value const &right) {
    if (!right.hasPayload())
        return false;
    if (!left.hasPayload())
        return true;
    return left.get<T>() < right.get<T>();
}
template <class T> bool optionalGreaterOrEqual(Value const &left, Value const &right) {
    if (left.hasPayload() && right.hasPayload())
        return left.get<T>() >= right.get<T>();
    return !(!left.hasPayload() && right.hasPayload());
}
template <class T> bool optionalLessOrEqual(Value const &left, Value const &right) {
    if (!left.hasPayload())
        return true;
    if (!right.hasPayload())
        return false;
    return left.get<T>() <= right.get<T>();
}

// --- texts ---------------------------------------------------------------------------------

bool nocaseString(Value const &left, Value const &right) {
    auto const &a = left.get<basalt::ustring>();
    auto const &b = right.get<basalt::ustring>();
    return basalt::i18n::detail::compare(a.data(), a.size(), b.data(), b.size(), basalt::i18n::case_insensitive) == 0;
}

bool nocaseStdString(Value const &left, Value const &right) {
    auto const &a = left.get<std::string>();
    auto const &b = right.get<std::string>();
    if (a.size() != b.size())
        return false;
    auto const &ctype = std::use_facet<std::ctype<char>>(std::locale());
    for (std::size_t i = 0; i < a.size(); ++i)
        if (ctype.tolower(a[i]) != ctype.tolower(b[i]))
            return false;
    return true;
}

template <bool wholeMatch> bool regexString(Value const &left, Value const &right) {
    return basalt::regex::regex_search(left.get<basalt::ustring>(), right.get<basalt::ustring>(), wholeMatch);
}

template <bool wholeMatch> bool regexStdString(Value const &left, Value const &right) {
    std::regex const pattern(right.get<std::string>(), std::regex::ECMAScript);
    auto const &text = left.get<std::string>();
    return wholeMatch ? std::regex_match(text, pattern) : std::regex_search(text, pattern);
}

// The text relations of a property that may be empty: no match when either side is.
template <ValueComparator compare> bool unlessEmpty(Value const &left, Value const &right) {
    return left.hasPayload() && right.hasPayload() && compare(left, right);
}

// --- the table -----------------------------------------------------------------------------

struct Key {
    void const *type;
    bool required;
    ValueMatchRelation relation;

    bool operator==(Key const &) const = default;
    template <class H> friend H AbslHashValue(H state, Key const &key) {
        return H::combine(std::move(state), key.type, key.required, key.relation);
    }
};

void const *identity(meta::Type const &type) { return static_cast<ModelElement const &>(type).get(); }

// Every class shares the entries of elements, every enum those of enums.
char const anyClass = 0;
char const anyEnum = 0;

} // namespace

struct ValueComparatorRegistry::Table {
    absl::flat_hash_map<Key, ValueComparator> entries;

    void add(void const *type, bool required, R relation, ValueComparator comparator) {
        entries.emplace(Key{type, required, relation}, comparator);
    }
    void add(meta::Type const &type, bool required, R relation, ValueComparator comparator) {
        add(identity(type), required, relation, comparator);
    }

    template <class T> void addOrdered(meta::Type const &type) {
        add(type, true, R::equal, &required<T, std::equal_to<>>);
        add(type, true, R::notEqual, &required<T, std::not_equal_to<>>);
        add(type, true, R::greater, &required<T, std::greater<>>);
        add(type, true, R::greaterOrEqual, &required<T, std::greater_equal<>>);
        add(type, true, R::less, &required<T, std::less<>>);
        add(type, true, R::lessOrEqual, &required<T, std::less_equal<>>);
        add(type, false, R::equal, &optionalEqual);
        add(type, false, R::notEqual, &optionalNotEqual);
        add(type, false, R::greater, &optionalGreater<T>);
        add(type, false, R::greaterOrEqual, &optionalGreaterOrEqual<T>);
        add(type, false, R::less, &optionalLess<T>);
        add(type, false, R::lessOrEqual, &optionalLessOrEqual<T>);
    }

    template <ValueComparator nocase, ValueComparator match, ValueComparator search>
    void addText(meta::Type const &type) {
        add(type, true, R::equalStringNocase, nocase);
        add(type, true, R::regexpMatch, match);
        add(type, true, R::regexpSearch, search);
        add(type, false, R::equalStringNocase, &unlessEmpty<nocase>);
        add(type, false, R::regexpMatch, &unlessEmpty<match>);
        add(type, false, R::regexpSearch, &unlessEmpty<search>);
    }
};

ValueComparatorRegistry::ValueComparatorRegistry() : table_(std::make_unique<Table>()) {
    using meta::StandardTypes;
    Table &table = *table_;
    // Every standard type with a native payload has the six orderings, set or optional.
#define KIVRA_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member) table.addOrdered<Native>(StandardTypes::member.get());
#include <kivra/meta/PrimitiveTypes.def>

    table.addText<&nocaseString, &regexString<true>, &regexString<false>>(StandardTypes::stringMeta.get());
    table.addText<&nocaseStdString, &regexStdString<true>, &regexStdString<false>>(StandardTypes::stdstringMeta.get());

    // An element compares by identity only, and a reference is always read as one
    // element value, set or empty.
    table.add(&anyClass, true, R::equal, &optionalEqual);
    table.add(&anyClass, true, R::notEqual, &optionalNotEqual);

    void const *const enumeration = &anyEnum;
    table.add(enumeration, true, R::equal, &required<std::uint64_t, std::equal_to<>>);
    table.add(enumeration, true, R::notEqual, &required<std::uint64_t, std::not_equal_to<>>);
    table.add(enumeration, false, R::equal, &optionalEqual);
    table.add(enumeration, false, R::notEqual, &optionalNotEqual);
}

ValueComparatorRegistry::~ValueComparatorRegistry() = default;

ValueComparatorRegistry const *ValueComparatorRegistry::getInstance() {
    // Never destroyed: queries may compare during static destruction of their users.
    static ValueComparatorRegistry const *const instance = new ValueComparatorRegistry();
    return instance;
}

ValueComparator const *ValueComparatorRegistry::getComparator(ValueMatchRelation relation, meta::Type const &type,
                                                              bool required) const {
    if (!type)
        return nullptr;
    Key key{identity(type), required, relation};
    if (detail::isClassType(type)) {
        key.type = &anyClass;
        key.required = true;
    } else if (internal::isEnumType(type)) {
        key.type = &anyEnum;
    }
    auto const found = table_->entries.find(key);
    return found == table_->entries.end() ? nullptr : &found->second;
}

} // namespace kivra::query
