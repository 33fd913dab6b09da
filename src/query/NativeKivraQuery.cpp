#include "query/NativeKivraQuery.hpp"

#include "query/TypeKinds.hpp"

#include "core/ElementTable.hpp"

#include <kivra/ElementId.hpp>
#include <kivra/Messages.hpp>
#include <kivra/ReferenceCollection.hpp>
#include <kivra/detail/Collections.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/StandardTypes.hpp>
#include <kivra/query/AbstractQuery.hpp>

#include <basalt/i18n/Unicode.hpp>
#include <basalt/regex/Regex.hpp>

#include <absl/container/flat_hash_map.h>

#include <boost/uuid/uuid_io.hpp>

#include <algorithm>
#include <array>
#include <bit>
#include <limits>
#include <new>
#include <optional>
#include <regex>
#include <typeinfo>
#include <utility>
#include <cstddef>

namespace kivra::query {

ModelElement::Impl::ReflectionPrivateTag const &ReflectiveQuery::privilegedTag =
    ModelElement::Impl::ReflectionPrivateTag::PRIVILEGED_ACCESS;

ReflectiveQuery::~ReflectiveQuery() = default;
ReflectiveQuery::ResultIterator::~ResultIterator() = default;
ReflectiveDisjunction::~ReflectiveDisjunction() = default;

namespace {

// Limits and offsets travel as 32-bit signed numbers in other engines.
constexpr std::size_t limitBound = 0x80000000;


ValueComparator const *comparatorFor(ValueMatchRelation asGiven, ValueMatchRelation relation,
                                     meta::Property const &property) {
    meta::Type const type = property->getType();
    ValueComparator const *const comparator =
        ValueComparatorRegistry::getInstance()->getComparator(relation, type, property->getLower() > 0);
    if (!comparator)
        raise<RelationAndTypeNotSupported>(basalt::i18n::utf8_to_ustring(ValueMatchRelationName(asGiven)),
                                           type ? type->getName() : basalt::ustring());
    return comparator;
}

void checkProperty(meta::Property const &property) {
    if (!property)
        raise<messages::InvalidValue>();
}

} // namespace

// --- instances and constraints ---------------------------------------------------------

SearchInstance &NativeKivraQuery::instanceAt(std::size_t instance) {
    if (instance >= instances.size())
        raise<NoSuchInstanceId>();
    return instances[instance];
}

SearchInstance const &NativeKivraQuery::instanceAt(std::size_t instance) const {
    if (instance >= instances.size())
        raise<NoSuchInstanceId>();
    return instances[instance];
}

void NativeKivraQuery::clear() {
    instances.clear();
    joinGroups.clear();
    disjunctions.clear();
    limit = 0;
    offset = 0;
}

std::size_t NativeKivraQuery::addSearchClass(meta::Class const &cls, SearchClassMatchMode mode) {
    if (!cls)
        raise<InvalidSearchClass>();
    // Made in full before it joins: an instance without its class test would break the scan.
    SearchInstance added;
    added.searchClass = cls;
    added.matchMode = mode;
    added.constraints.push_back(std::make_unique<IsAConstraint>(added.searchClass, mode));
    instances.push_back(std::move(added));
    return instances.size() - 1;
}

void NativeKivraQuery::addPropertyRelationProperty(meta::Property const &a, std::size_t instanceA,
                                                   ValueMatchRelation relation, meta::Property const &b,
                                                   std::size_t instanceB) {
    checkProperty(a);
    checkProperty(b);
    SearchInstance &holderA = instanceAt(instanceA);
    instanceAt(instanceB);
    if (a->getType() != b->getType())
        raise<PropertyRelationPropertyTypeMismatch>();
    ValueComparator const *const comparator = comparatorFor(relation, relation, a);
    if (instanceA == instanceB) {
        holderA.constraints.push_back(
            std::make_unique<PropertyRelationPropertySingleObjectConstraint>(a, relation, b, comparator));
        return;
    }
    auto constraint =
        std::make_unique<PropertyRelationPropertyJoinConstraint>(a, instanceA, relation, b, instanceB, comparator);
    fileJoin(std::move(constraint), instanceA, instanceB);
}

void NativeKivraQuery::fileJoin(std::unique_ptr<JoinConstraint> constraint, std::size_t x, std::size_t y) {
    std::vector<std::size_t> key{std::min(x, y), std::max(x, y)};
    if (auto const found = joinGroups.find(key); found != joinGroups.end()) {
        found->second.push_back(std::move(constraint));
        return;
    }
    // A new group enters with its constraint: an empty one would still join its instances.
    std::vector<std::unique_ptr<JoinConstraint>> group;
    group.push_back(std::move(constraint));
    joinGroups.emplace(std::move(key), std::move(group));
}

std::unique_ptr<PropertyRelationValueConstraint>
NativeKivraQuery::makeValueConstraint(meta::Property const &property, ValueMatchRelation relation, Value const &value,
                                      std::size_t instance) const {
    instanceAt(instance);
    checkProperty(property);
    if (static_cast<std::uint32_t>(value.getFlags()) > static_cast<std::uint32_t>(ValueFlags::Single))
        raise<PropertyRelationValueNotPrimitive>();
    if (relation == ValueMatchRelation::like) {
        Value expression = likePatternToRegularExpression(value, property->getType());
        ValueComparator const *const comparator = comparatorFor(relation, ValueMatchRelation::regexpMatch, property);
        return std::make_unique<PropertyRelationValueConstraint>(property, ValueMatchRelation::regexpMatch,
                                                                 std::move(expression), comparator, instance);
    }
    ValueComparator const *const comparator = comparatorFor(relation, relation, property);
    if ((relation == ValueMatchRelation::regexpMatch || relation == ValueMatchRelation::regexpSearch) &&
        value.hasPayload()) {
        // A pattern that does not compile is the caller's to hear of here, in the library's
        // terms, not from the expression library at the first row of a run. Matched against
        // itself, as the operand of the right type at hand.
        try {
            (*comparator)(value, value);
        } catch (basalt::regex::regex_error const &) {
            raise<messages::InvalidValue>();
        } catch (std::regex_error const &) {
            raise<messages::InvalidValue>();
        }
    }
    return std::make_unique<PropertyRelationValueConstraint>(property, relation, value, comparator, instance);
}

void NativeKivraQuery::addPropertyRelationValue(meta::Property const &property, ValueMatchRelation relation,
                                                Value const &value, std::size_t instance) {
    auto constraint = makeValueConstraint(property, relation, value, instance);
    instances[instance].constraints.push_back(std::move(constraint));
}

void NativeKivraQuery::requireTopLevelElement(std::size_t instance) {
    instanceAt(instance).constraints.push_back(std::make_unique<IsTopLevelElementConstraint>());
}

void NativeKivraQuery::setSpecificElement(ModelElement const &element, std::size_t instance) {
    SearchInstance &target = instanceAt(instance);
    if (target.specificElement && !(target.specificElement == element))
        raise<ConflictingSpecificElements>();
    if (!element)
        raise<SpecificElementMustExist>();
    // Whatever the match mode: the class test still runs on the element and may drop it.
    if (!element->getMetaClass()->isA(target.searchClass))
        raise<messages::CannotCastIncompatibleTypes>(target.searchClass->getQualifiedName());
    target.specificElement = element;
}

void NativeKivraQuery::addAssociatedObject(meta::Property const &property, std::size_t holderInstance,
                                           std::size_t valueInstance) {
    checkProperty(property);
    instanceAt(holderInstance);
    instanceAt(valueInstance);
    fileJoin(std::make_unique<AssociatedObjectConstraint>(property, holderInstance, valueInstance), holderInstance,
             valueInstance);
}

ReflectiveDisjunction *NativeKivraQuery::createDisjunction() {
    return disjunctions.emplace_back(std::make_unique<ReflectiveDisjunctionImpl>(*this)).get();
}

void NativeKivraQuery::setResultLimit(std::size_t value) {
    if (value >= limitBound)
        raise<InvalidLimitOffsetValue>();
    limit = value;
}

void NativeKivraQuery::setResultOffset(std::size_t value) {
    if (value >= limitBound)
        raise<InvalidLimitOffsetValue>();
    offset = value;
}

// --- sorts ---------------------------------------------------------------------------------

void NativeKivraQuery::sortByProperty(meta::Property const &property, std::size_t instance, SortDirection direction) {
    sorting = std::make_unique<ByPropertySorting>(instance, direction, property);
}

void NativeKivraQuery::sortIntrinsic(std::size_t instance, SortDirection direction) {
    sorting = std::make_unique<IntrinsicSorting>(instance, direction);
}

void NativeKivraQuery::sortByOrdinal(meta::Property const &property, std::size_t instance, SortDirection direction) {
    if (!property || property->getUpper() == 1 || !property->getIsOrdered() || !detail::isClassType(property->getType()))
        raise<UnsupportedSorting>();
    sorting = std::make_unique<ByOrdinalSorting>(instance, direction, property);
}

// --- runs ----------------------------------------------------------------------------------

namespace {

constexpr std::size_t none = ~std::size_t{0};
constexpr Cell noCell = ~Cell{0};

// Holds what its rows name: the caller may change the model while it reads them.
class NativeResultIterator final : public ReflectiveQuery::ResultIterator {
public:
    NativeResultIterator(std::size_t width, Cells cells, std::vector<ModelElement> elements)
        : width_(width), cells_(std::move(cells)), elements_(std::move(elements)) {}
    bool next(std::vector<ModelElement> &row) override {
        if (width_ == 0 || position_ >= cells_.size()) {
            row.assign(width_, ModelElement());
            return false;
        }
        row.resize(width_);
        for (std::size_t column = 0; column < width_; ++column)
            row[column] = elements_[cells_[position_++]];
        return true;
    }

private:
    std::size_t width_;
    Cells cells_;
    std::vector<ModelElement> elements_;
    std::size_t position_ = 0;
};

// Which instances an element's metaclass lets through, found once per metaclass: a model
// has few metaclasses and many elements, and the class test is the first of every instance.
class ClassFilter {
public:
    static constexpr std::size_t maxInstances = 64;

    explicit ClassFilter(std::vector<SearchInstance> const &instances) : instances_(instances) {}

    std::uint64_t passing(meta::Class const &cls) {
        meta::Class::Impl const *const key = cls.get();
        if (key == lastKey_)
            return lastMask_;
        auto found = std::find_if(seen_.begin(), seen_.end(), [&](auto const &entry) { return entry.first == key; });
        if (found == seen_.end()) {
            std::uint64_t mask = 0;
            for (std::size_t id = 0; id < instances_.size(); ++id)
                if (static_cast<IsAConstraint const &>(*instances_[id].constraints.front()).matches(cls))
                    mask |= std::uint64_t{1} << id;
            found = seen_.insert(seen_.end(), {key, mask});
        }
        lastKey_ = key;
        lastMask_ = found->second;
        return lastMask_;
    }

private:
    std::vector<SearchInstance> const &instances_;
    std::vector<std::pair<meta::Class::Impl const *, std::uint64_t>> seen_;
    meta::Class::Impl const *lastKey_ = nullptr;
    std::uint64_t lastMask_ = 0;
};

bool passesFrom(SearchInstance const &instance, std::size_t first, ModelElement::Impl const &element) {
    auto const &constraints = instance.constraints;
    for (std::size_t i = first; i < constraints.size(); ++i)
        if (!constraints[i]->test(element))
            return false;
    return true;
}

std::size_t columnOf(ResultSet const &set, std::size_t instance) {
    return static_cast<std::size_t>(std::find(set.instanceIds.begin(), set.instanceIds.end(), instance) -
                                    set.instanceIds.begin());
}

// The cross product of `inputs`, the first input's index running fastest, keeping the
// combinations that `keep` accepts; `keep` sees the concatenated row.
template <typename Keep> ResultSet product(std::vector<ResultSet> const &inputs, Keep keep) {
    ResultSet out;
    for (ResultSet const &input : inputs)
        out.instanceIds.insert(out.instanceIds.end(), input.instanceIds.begin(), input.instanceIds.end());
    for (ResultSet const &input : inputs)
        if (input.rowCount() == 0)
            return out;
    std::vector<std::size_t> at(inputs.size(), 0);
    std::vector<Cell> row(out.width());
    for (;;) {
        auto column = row.begin();
        for (std::size_t k = 0; k < inputs.size(); ++k)
            column = std::copy_n(inputs[k].row(at[k]), inputs[k].width(), column);
        if (keep(row.data()))
            out.cells.insert(out.cells.end(), row.begin(), row.end());
        std::size_t k = 0;
        while (k < inputs.size() && ++at[k] == inputs[k].rowCount())
            at[k++] = 0;
        if (k == inputs.size())
            return out;
    }
}

// An equality of single values whose hash agrees with the comparator: equal values have
// equal hashes. Reals are left out, as 0.0 and -0.0 are equal with different bits.
bool hashableEquality(JoinConstraint const &constraint) {
    auto const *const relation = dynamic_cast<PropertyRelationPropertyJoinConstraint const *>(&constraint);
    if (!relation || relation->relation != ValueMatchRelation::equal || relation->instanceA == relation->instanceB)
        return false;
    meta::Property const &a = relation->propertyA;
    meta::Property const &b = relation->propertyB;
    if (a->getUpper() != 1 || b->getUpper() != 1)
        return false;
    meta::Type const type = a->getType();
    return type && type != meta::StandardTypes::realMeta.get();
}

// Rows by a key, without a list per key: `first` gives a key's first row, `next` each
// row's successor under the same key, `none` at the end.
template <typename Key> struct RowsByKey {
    absl::flat_hash_map<Key, std::size_t> first;
    std::vector<std::size_t> next;

    explicit RowsByKey(std::size_t rows) : next(rows, none) { first.reserve(rows); }
    void add(Key const &key, std::size_t row) {
        auto const [entry, added] = first.try_emplace(key, row);
        if (!added)
            next[row] = std::exchange(entry->second, row);
    }
    template <typename Visit> void forEach(Key const &key, Visit visit) const {
        if (auto const found = first.find(key); found != first.end())
            for (std::size_t row = found->second; row != none; row = next[row])
                visit(row);
    }
};

// A pair of rows, j of the second input and i of the first, as one number with j above i:
// numbers order as the plain walk visits pairs, and a large join's pairs are put in that
// order by a radix sort of plain numbers.
struct PairCode {
    unsigned shift; ///< the bits of a row of the first input

    explicit PairCode(std::size_t firstRows) : shift(static_cast<unsigned>(std::bit_width(firstRows - 1))) {}
    std::uint64_t operator()(std::size_t j, std::size_t i) const noexcept { return std::uint64_t{j} << shift | i; }
    std::size_t second(std::uint64_t code) const noexcept { return static_cast<std::size_t>(code >> shift); }
    std::size_t first(std::uint64_t code) const noexcept {
        return static_cast<std::size_t>(code & ((std::uint64_t{1} << shift) - 1));
    }
};
using Pairs = std::vector<std::uint64_t, UnwrittenAllocator<std::uint64_t>>;

// Pairs (row of second, row of first) whose values of an equality may be equal: their
// hashes are. Nothing when an empty value meets a comparator that reads set values only,
// on either side, since only the plain walk raises where the comparator would.
std::optional<Pairs> equalityPairs(PropertyRelationPropertyJoinConstraint const &equality,
                                   Elements const &elements, ResultSet const &first,
                                   ResultSet const &second) {
    bool const aInFirst = columnOf(first, equality.instanceA) < first.width();
    // The comparator is the one of property A; elements compare empty or not.
    bool const required =
        equality.propertyA->getLower() > 0 && !detail::isClassType(equality.propertyA->getType());
    auto const hashes = [&](ResultSet const &input, std::size_t instance, meta::Property const &property,
                            std::vector<std::uint64_t> &out) {
        std::size_t const column = columnOf(input, instance);
        out.reserve(input.rowCount());
        for (std::size_t row = 0; row < input.rowCount(); ++row) {
            Value const value = elements[input.row(row)[column]]->getPropertyValue(property, ReflectiveQuery::privilegedTag);
            if (isCollection(value.getFlags()) || (required && !value.hasPayload()))
                return false;
            out.push_back(value.hashValues());
        }
        return true;
    };
    std::vector<std::uint64_t> inFirst, inSecond;
    if (!hashes(first, aInFirst ? equality.instanceA : equality.instanceB,
                aInFirst ? equality.propertyA : equality.propertyB, inFirst) ||
        !hashes(second, aInFirst ? equality.instanceB : equality.instanceA,
                aInFirst ? equality.propertyB : equality.propertyA, inSecond))
        return std::nullopt;
    RowsByKey<std::uint64_t> byHash(inFirst.size());
    for (std::size_t i = 0; i < inFirst.size(); ++i)
        byHash.add(inFirst[i], i);
    PairCode const code(first.rowCount());
    Pairs out;
    for (std::size_t j = 0; j < inSecond.size(); ++j)
        byHash.forEach(inSecond[j], [&](std::size_t i) { out.push_back(code(j, i)); });
    return out;
}

// A holder and its row; left unwritten when made, as a table of them is filled right after.
struct Placed {
    ModelElement::Impl const *element;
    std::size_t row;
};

// Orders `items` by `keyOf` (at most `highest`) with a least-significant-digit radix sort:
// stable, one pass that counts every digit at once, then one pass per digit that writes to a
// few thousand places in turn; a digit that all keys share is passed over.
template <class Items, class KeyOf> void radixSort(Items &items, std::uint64_t highest, KeyOf keyOf) {
    constexpr unsigned digit = 11;
    constexpr std::size_t buckets = std::size_t{1} << digit;
    constexpr std::uint64_t mask = buckets - 1;
    unsigned const digits = (static_cast<unsigned>(std::bit_width(highest)) + digit - 1) / digit;
    if (digits == 0 || items.size() < 2)
        return;
    std::vector<std::array<std::size_t, buckets>> starts(digits);
    for (auto const &item : items) {
        std::uint64_t const key = keyOf(item);
        for (unsigned d = 0; d < digits; ++d)
            ++starts[d][key >> (d * digit) & mask];
    }
    Items scratch(items.size());
    for (unsigned d = 0; d < digits; ++d) {
        auto &start = starts[d];
        if (std::find(start.begin(), start.end(), items.size()) != start.end())
            continue;
        std::size_t sum = 0;
        for (std::size_t &count : start)
            sum += std::exchange(count, sum);
        unsigned const shift = d * digit;
        for (auto const &item : items)
            scratch[start[keyOf(item) >> shift & mask]++] = item;
        items.swap(scratch);
    }
}

// Rows by the address of their element, without hashing: the elements are sorted by
// address, and a directory tells where each stretch of `1 << shift` bytes from the lowest
// begins among them, the stretch chosen so that there are no more stretches than rows. The
// elements of one class lie in a few runs of the model's memory, so a look-up is a
// subtraction, a shift and a step or two among neighbours; elements strewn unevenly cost
// a binary search in their stretch at worst. Both tables are smaller than a hash table's
// slots, and a hash of each entry, computed once to prefetch and once to find, was most of
// what a look-up cost.
class RowsByAddress {
public:
    explicit RowsByAddress(std::vector<Placed, UnwrittenAllocator<Placed>> rows) : sorted_(std::move(rows)) {
        auto const [low, high] = std::minmax_element(
            sorted_.begin(), sorted_.end(), [](Placed const &a, Placed const &b) { return a.element < b.element; });
        low_ = reinterpret_cast<std::uintptr_t>(low->element);
        std::uintptr_t const span = reinterpret_cast<std::uintptr_t>(high->element) - low_;
        // Elements are at least word aligned; rows of one element keep their order.
        radixSort(sorted_, span / alignof(void *), [this](Placed const &item) -> std::uint64_t {
            return (reinterpret_cast<std::uintptr_t>(item.element) - low_) / alignof(void *);
        });
        while ((span >> shift_) >= sorted_.size())
            ++shift_;
        stretches_ = (span >> shift_) + 1;
        starts_.resize(stretches_ + 1);
        std::size_t at = 0;
        for (std::size_t stretch = 0; stretch <= stretches_; ++stretch) {
            while (at < sorted_.size() && stretchOf(sorted_[at].element) < stretch)
                ++at;
            starts_[stretch] = at;
        }
    }

    template <typename Visit> void forEach(ModelElement::Impl const *element, Visit visit) const {
        std::size_t const stretch = stretchOf(element);
        if (stretch >= stretches_)
            return;
        auto at = sorted_.begin() + static_cast<std::ptrdiff_t>(starts_[stretch]);
        auto const end = sorted_.begin() + static_cast<std::ptrdiff_t>(starts_[stretch + 1]);
        if (end - at > 4)
            at = std::lower_bound(at, end, element, [](Placed const &item, ModelElement::Impl const *e) {
                return item.element < e;
            });
        for (; at != end && at->element <= element; ++at)
            if (at->element == element)
                visit(at->row);
    }

private:
    // Below the lowest, the difference wraps round to a stretch past the last.
    std::size_t stretchOf(ModelElement::Impl const *element) const noexcept {
        return (reinterpret_cast<std::uintptr_t>(element) - low_) >> shift_;
    }

    std::vector<Placed, UnwrittenAllocator<Placed>> sorted_;
    std::uintptr_t low_ = 0;
    unsigned shift_ = 0;
    std::size_t stretches_ = 0;
    std::vector<std::size_t, UnwrittenAllocator<std::size_t>> starts_;
};

// Pairs (row of second, row of first) whose holder holds the value element or a proxy
// that names it by UUID.
Pairs associationPairs(AssociatedObjectConstraint const &association, Elements const &elements,
                       ResultSet const &first, ResultSet const &second) {
    bool const holderInFirst = columnOf(first, association.holderInstance) < first.width();
    ResultSet const &holders = holderInFirst ? first : second;
    ResultSet const &values = holderInFirst ? second : first;
    std::size_t const holderColumn = columnOf(holders, association.holderInstance);
    std::size_t const valueColumn = columnOf(values, association.valueInstance);
    std::vector<Placed, UnwrittenAllocator<Placed>> valueRows(values.rowCount());
    bool valuesHoldProxies = false;
    for (std::size_t i = 0; i < values.rowCount(); ++i) {
        if (i + 8 < values.rowCount())
            __builtin_prefetch(elements[values.row(i + 8)[valueColumn]]);
        ModelElement::Impl const *const value = elements[values.row(i)[valueColumn]];
        valueRows[i] = {value, i};
        valuesHoldProxies = valuesHoldProxies || (value && value->isValid() && value->isProxy());
    }
    RowsByAddress const byElement(std::move(valueRows));
    // Made at the first proxy: most collections hold none.
    std::optional<RowsByKey<basalt::ustring>> byUuidText;
    PairCode const code(first.rowCount());
    Pairs out;
    // Most holders hold something, often more than one: growing from nothing would copy the
    // pairs again and again. Memory reserved and never written costs no page.
    out.reserve(2 * holders.rowCount());
    auto const add = [&](std::size_t holder, std::size_t value) {
        out.push_back(holderInFirst ? code(value, holder) : code(holder, value));
    };
    // An entry that names no value row may be a proxy of one.
    auto const enterProxy = [&](std::size_t holder, ModelElement::Impl const *entry) {
        boost::optional<ProxyId> const id = entry->getProxyId();
        if (!id || id->getIdentifierType() != u"uuid")
            return;
        if (!byUuidText) {
            byUuidText.emplace(values.rowCount());
            for (std::size_t i = 0; i < values.rowCount(); ++i)
                if (ModelElement::Impl const *const value = elements[values.row(i)[valueColumn]];
                    value && value->isValid())
                    byUuidText->add(basalt::i18n::utf8_to_ustring(boost::uuids::to_string(value->getUuid())), i);
        }
        byUuidText->forEach(id->getIdentifier(), [&](std::size_t value) { add(holder, value); });
    };
    auto const enter = [&](std::size_t holder, ModelElement::Impl const *entry) {
        // A value row names a live element, and no proxy unless some value is one: an entry
        // found among them needs no look at the element itself, which lies anywhere.
        bool found = false;
        byElement.forEach(entry, [&](std::size_t value) {
            add(holder, value);
            found = true;
        });
        if ((!found || valuesHoldProxies) && entry && entry->isValid() && entry->isProxy())
            enterProxy(holder, entry);
    };
    meta::Property const &property = association.property;
    bool const single = property->getUpper() == 1;
    // The entries of a sequence, the common collection, are read where they lie. They are
    // looked up at once: the table of value rows is small enough to stay in cache, and a
    // ring that held each entry back until its place in a hash table was fetched cost more
    // than it saved once there was no hash table.
    auto const enterAll = [&](std::size_t h, ElementSequenceBase const &sequence) {
        for (std::size_t i = 0; i < sequence.size(); ++i)
            enter(h, sequence.rawAt(i).get());
    };
    // The holders of one property share one kind of collection: whether it is a sequence is
    // asked again only of another kind.
    std::type_info const *lastKind = nullptr;
    bool lastIsSequence = false;
    auto const sequenceOf = [&](ReferenceCollection const &collection) -> ElementSequenceBase const * {
        if (std::type_info const &kind = typeid(collection); &kind != lastKind) {
            lastKind = &kind;
            lastIsSequence = asElementSequence(collection) != nullptr;
        }
        return lastIsSequence ? static_cast<ElementSequenceBase const *>(&collection) : nullptr;
    };
    meta::Property::Impl const &described = *property.get();
    // The rows of one holder lie together, but for holders that share a line: a holder in
    // several rows is read once, its sequence kept for the rows that follow.
    ModelElement::Impl const *lastHolder = nullptr;
    ElementSequenceBase const *lastSequence = nullptr;
    // The holders are read in their rows' order, which is the table's: elements made one
    // after another lie side by side, and so, mostly, do the collections they filled.
    std::size_t const holderRows = holders.rowCount();
    for (std::size_t h = 0; h < holderRows; ++h) {
        if (h + 8 < holderRows)
            __builtin_prefetch(elements[holders.row(h + 8)[holderColumn]]);
        ModelElement::Impl const *const holder = elements[holders.row(h)[holderColumn]];
        if (holder == lastHolder && lastSequence) {
            enterAll(h, *lastSequence);
            continue;
        }
        lastHolder = holder;
        lastSequence = nullptr;
        // A generated holder shows a collection it has made where it lies: no value is made
        // to read it. Its proxies are resolved first, as the holder's own read does, or an
        // entry that resolves to a value by an id other than its UUID would be missed.
        auto const *collection =
            single ? nullptr : static_cast<ReferenceCollection const *>(holder->nativeValueAddress(described));
        if (collection) {
            kivra::detail::resolveCollectionOnAccess(*holder, const_cast<ReferenceCollection &>(*collection));
            if (ElementSequenceBase const *const sequence = sequenceOf(*collection)) {
                lastSequence = sequence;
                enterAll(h, *sequence);
                continue;
            }
            for (ModelElement const &entry : collection->getAllValuesAndProxies())
                enter(h, entry.get());
            continue;
        }
        // Only a holder that shows no collection makes a value: an empty one made for every
        // holder was a clear of its bytes each time.
        Value const value = holder->getPropertyValue(property, ReflectiveQuery::privilegedTag);
        collection = single || !value.hasPayload() ? nullptr : managedReferenceCollection(value);
        if (ElementSequenceBase const *const sequence = collection ? sequenceOf(*collection) : nullptr) {
            lastSequence = sequence;
            enterAll(h, *sequence);
            continue;
        }
        if (collection) {
            for (ModelElement const &entry : collection->getAllValuesAndProxies())
                enter(h, entry.get());
            continue;
        }
        anyHeldElement(value, single, [&](ModelElement const &entry) {
            enter(h, entry.get());
            return false;
        });
    }
    return out;
}

// How far pairs come in order: not at all, by row of first (a holder's pairs follow the
// holders' rows, the holders in first), or by row of second (the holders in second).
enum class PairsCome { Unordered, ByFirst, BySecond };

// The pairs in the plain walk's order, each once: by row of second, then by row of first.
void orderPairs(Pairs &pairs, PairCode const &code, std::size_t secondRows, PairsCome come) {
    if (pairs.size() < 256) {
        std::sort(pairs.begin(), pairs.end());
    } else if (come == PairsCome::ByFirst && secondRows <= 4 * pairs.size()) {
        // One stable pass by row of second keeps each row's pairs in order of first: a
        // count per row, where a radix sort would take two or three passes of digits.
        std::vector<std::size_t, UnwrittenAllocator<std::size_t>> next(secondRows + 1, 0);
        for (std::uint64_t const pair : pairs)
            ++next[code.second(pair) + 1];
        for (std::size_t row = 1; row < secondRows; ++row)
            next[row] += next[row - 1];
        Pairs ordered(pairs.size());
        for (std::uint64_t const pair : pairs)
            ordered[next[code.second(pair)]++] = pair;
        pairs.swap(ordered);
    } else if (come == PairsCome::ByFirst) {
        radixSort(pairs, secondRows - 1, [&code](std::uint64_t pair) -> std::uint64_t { return code.second(pair); });
    } else if (come == PairsCome::BySecond) {
        // Only the pairs of one holder row need ordering among themselves: a handful each.
        for (auto run = pairs.begin(); run != pairs.end();) {
            std::uint64_t const row = code.second(*run);
            auto const end = std::find_if(run, pairs.end(), [&](std::uint64_t pair) { return code.second(pair) != row; });
            std::sort(run, end);
            run = end;
        }
    } else {
        radixSort(pairs, *std::max_element(pairs.begin(), pairs.end()), [](std::uint64_t pair) { return pair; });
    }
    pairs.erase(std::unique(pairs.begin(), pairs.end()), pairs.end());
}

// `exact` tells that every pair passes `constraint`, not only those that may; `come`, how
// far the pairs are in order.
std::optional<Pairs> candidatePairs(JoinConstraint const &constraint, Elements const &elements,
                                    ResultSet const &first, ResultSet const &second, bool &exact, PairsCome &come) {
    exact = false;
    come = PairsCome::Unordered;
    if (hashableEquality(constraint))
        return equalityPairs(static_cast<PropertyRelationPropertyJoinConstraint const &>(constraint), elements,
                             first, second);
    if (auto const *association = dynamic_cast<AssociatedObjectConstraint const *>(&constraint);
        association && association->holderInstance != association->valueInstance) {
        exact = true;
        come = columnOf(first, association->holderInstance) < first.width() ? PairsCome::ByFirst : PairsCome::BySecond;
        return associationPairs(*association, elements, first, second);
    }
    return std::nullopt;
}

} // namespace

std::vector<ResultSet> NativeKivraQuery::scan(Elements &elements, RunCounts &counts) const {
    std::vector<ResultSet> sets(instances.size());
    for (std::size_t id = 0; id < instances.size(); ++id)
        sets[id].instanceIds.push_back(id);
    bool const filterByClass = !plainEvaluation && instances.size() <= ClassFilter::maxInstances;
    ClassFilter filter(instances);
    // The walk takes no count on what it visits, nor on what it keeps, since the model keeps
    // it: an element that some instance keeps is listed once, and its place in the list
    // keeps the table's order.
    auto const visit = [&](ModelElement::Impl *element) {
        ++counts.scanned;
        std::uint64_t const passing = filterByClass ? filter.passing(element->getMetaClass()) : ~std::uint64_t{0};
        Cell place = noCell;
        for (std::size_t id = 0; id < instances.size(); ++id) {
            SearchInstance const &instance = instances[id];
            if (instance.specificElement && instance.specificElement.get() != element)
                continue;
            if (filterByClass && !(passing >> id & 1))
                continue;
            ++counts.tested;
            if (!passesFrom(instance, filterByClass ? 1 : 0, *element))
                continue;
            if (place == noCell) {
                place = static_cast<Cell>(elements.size());
                elements.push_back(element);
            }
            sets[id].cells.push_back(place);
        }
    };
    kivra::detail::ElementSet const &table = kivra::detail::ElementTableAccess::elementsOf(*model.get());
    // Rows name elements in half words; a model this large could not have been made.
    if (table.size() >= noCell)
        throw std::bad_alloc();
    // Room for every element, so that the list is never copied as it grows; memory reserved
    // and never written costs no page.
    elements.reserve(table.size());
    // A constraint reads past an element's first line, and neighbours in the table are
    // not always neighbours in memory: each element is asked for, its first lines whole, a
    // fixed number of visits before its own, so that the misses overlap instead of coming
    // one after another.
    constexpr std::size_t ahead = 16;
    constexpr std::size_t linesAhead = 3;
    std::array<ModelElement::Impl *, ahead> pending{};
    std::size_t seen = 0;
    table.forEach([&](ModelElement::Impl *element) {
        for (std::size_t line = 0; line < linesAhead; ++line)
            __builtin_prefetch(reinterpret_cast<char const *>(element) + 64 * line);
        ModelElement::Impl *&slot = pending[seen++ % ahead];
        if (seen > ahead)
            visit(slot);
        slot = element;
    });
    for (std::size_t left = seen > ahead ? seen - ahead : 0; left < seen; ++left)
        visit(pending[left % ahead]);
    return sets;
}

void NativeKivraQuery::join(Elements const &elements, std::vector<std::size_t> const &ids,
                            std::vector<std::unique_ptr<JoinConstraint>> const &group,
                            std::vector<ResultSet> &sets, RunCounts &counts) const {
    // The sets that hold the ids, each once, in order of first meeting.
    std::vector<std::size_t> taken;
    for (std::size_t const id : ids) {
        std::size_t set = 0;
        while (columnOf(sets[set], id) == sets[set].width())
            ++set;
        if (std::find(taken.begin(), taken.end(), set) == taken.end())
            taken.push_back(set);
    }
    std::vector<ResultSet> inputs;
    inputs.reserve(taken.size());
    for (std::size_t const set : taken)
        inputs.push_back(std::move(sets[set]));
    std::sort(taken.begin(), taken.end());
    for (auto set = taken.rbegin(); set != taken.rend(); ++set)
        sets.erase(sets.begin() + static_cast<std::ptrdiff_t>(*set));

    ResultSet out;
    for (ResultSet const &input : inputs)
        out.instanceIds.insert(out.instanceIds.end(), input.instanceIds.begin(), input.instanceIds.end());
    std::vector<std::size_t> at; // the column of each id in the concatenated row
    for (std::size_t const id : ids)
        at.push_back(columnOf(out, id));
    std::vector<ModelElement::Impl const *> arguments(ids.size());
    std::size_t firstToTest = 0;
    auto const passes = [&](Cell const *row) {
        ++counts.combined;
        if (firstToTest == group.size())
            return true;
        for (std::size_t i = 0; i < ids.size(); ++i)
            arguments[i] = elements[row[at[i]]];
        for (std::size_t c = firstToTest; c < group.size(); ++c)
            if (!group[c]->test(arguments, ids))
                return false;
        return true;
    };

    // Only the combinations that can pass the group's first constraint are walked, in the
    // plain walk's order: the second input's rows outside, the first's inside. The group
    // still tests each of them in full.
    std::optional<Pairs> candidates;
    bool exact = false;
    PairsCome come = PairsCome::Unordered;
    // A pair's code holds both rows.
    constexpr std::size_t pairRows = std::numeric_limits<std::uint32_t>::max();
    if (!plainEvaluation && inputs.size() == 2 && inputs[0].rowCount() != 0 && inputs[1].rowCount() != 0 &&
        inputs[0].rowCount() <= pairRows && inputs[1].rowCount() <= pairRows)
        candidates = candidatePairs(*group.front(), elements, inputs[0], inputs[1], exact, come);
    if (!candidates) {
        sets.push_back(product(inputs, passes));
        return;
    }
    orderPairs(*candidates, PairCode(inputs[0].rowCount()), inputs[1].rowCount(), come);
    PairCode const code(inputs[0].rowCount());
    firstToTest = exact ? 1 : 0;
    std::size_t const split = inputs[0].width();
    std::vector<Cell> row(out.width());
    // Two single columns and nothing left to test, the common join: the pairs are the rows.
    if (firstToTest == group.size() && out.width() == 2) {
        counts.combined += candidates->size();
        out.cells.resize(2 * candidates->size());
        Cell *cell = out.cells.data();
        for (std::uint64_t const pair : *candidates) {
            *cell++ = inputs[0].cells[code.first(pair)];
            *cell++ = inputs[1].cells[code.second(pair)];
        }
        sets.push_back(std::move(out));
        return;
    }
    out.cells.reserve(candidates->size() * row.size());
    for (std::uint64_t const pair : *candidates) {
        std::copy_n(inputs[0].row(code.first(pair)), split, row.begin());
        std::copy_n(inputs[1].row(code.second(pair)), inputs[1].width(), row.begin() + static_cast<std::ptrdiff_t>(split));
        if (passes(row.data()))
            out.cells.insert(out.cells.end(), row.begin(), row.end());
    }
    sets.push_back(std::move(out));
}

ResultSet NativeKivraQuery::evaluate(RunCounts *counted) const {
    if (instances.empty())
        raise<NoSearchInstances>();
    if (!model)
        raise<NoModel>();
    RunCounts local;
    RunCounts &counts = counted ? *counted : local;
    // The rows name elements by their place here.
    Elements elements;
    std::vector<ResultSet> sets = scan(elements, counts);
    for (auto const &[ids, group] : joinGroups)
        join(elements, ids, group, sets, counts);
    ResultSet result;
    if (sets.size() == 1) {
        result = std::move(sets.front());
    } else {
        result = product(sets, [](Cell const *) { return true; });
    }
    result.elements = std::move(elements);

    std::size_t const width = result.width();
    for (auto const &disjunction : disjunctions) {
        if (!disjunction->finished || disjunction->instances.size() == 1)
            continue;
        std::vector<std::size_t> columns;
        for (auto const &constraint : disjunction->constraints)
            columns.push_back(columnOf(result, constraint->getInstance()));
        // Rows that pass move up over those that failed, in their order.
        std::size_t kept = 0;
        for (std::size_t row = 0; row < result.rowCount(); ++row) {
            bool passes = false;
            for (std::size_t i = 0; i < columns.size() && !passes; ++i)
                passes = disjunction->constraints[i]->test(*result.element(row, columns[i]));
            if (!passes)
                continue;
            if (kept != row)
                std::copy_n(result.row(row), width, result.cells.begin() + static_cast<std::ptrdiff_t>(kept * width));
            ++kept;
        }
        result.cells.resize(kept * width);
    }

    if (sorting)
        sorting->sort(result);

    if (offset != 0) {
        if (result.rowCount() <= offset)
            result.cells.clear();
        else
            result.cells.erase(result.cells.begin(), result.cells.begin() + static_cast<std::ptrdiff_t>(offset * width));
    }
    if (limit != 0 && result.rowCount() > limit)
        result.cells.resize(limit * width);
    return result;
}

std::unique_ptr<ReflectiveQuery::ResultIterator> NativeKivraQuery::execute(std::vector<std::size_t> const &columns) {
    if (instances.empty())
        raise<NoSearchInstances>();
    if (!model)
        raise<NoModel>();
    // Columns are checked before anything runs, as construction calls check instance ids.
    for (std::size_t const id : columns)
        instanceAt(id);
    ResultSet result = evaluate();
    std::vector<std::size_t> wanted = columns;
    if (wanted.empty())
        for (std::size_t id = 0; id < instances.size(); ++id)
            wanted.push_back(id);
    std::vector<std::size_t> from;
    from.reserve(wanted.size());
    for (std::size_t const id : wanted)
        from.push_back(columnOf(result, id));
    // The iterator keeps the wanted columns and only the elements that they name, each once.
    Cells cells;
    cells.reserve(result.rowCount() * from.size());
    std::vector<ModelElement> kept;
    std::vector<Cell> place(result.elements.size(), noCell);
    for (std::size_t row = 0; row < result.rowCount(); ++row) {
        for (std::size_t const column : from) {
            Cell const element = result.row(row)[column];
            if (place[element] == noCell) {
                place[element] = static_cast<Cell>(kept.size());
                kept.push_back(ModelElement::fromImpl(result.elements[element]));
            }
            cells.push_back(place[element]);
        }
    }
    return std::make_unique<NativeResultIterator>(from.size(), std::move(cells), std::move(kept));
}

std::vector<ModelElement> NativeKivraQuery::getFirstResult() {
    std::vector<ModelElement> row;
    execute({})->next(row);
    return row;
}

std::size_t NativeKivraQuery::countResults() { return evaluate().rowCount(); }

// --- replay --------------------------------------------------------------------------------

void NativeKivraQuery::retarget(ReflectiveQuery &target) const {
    // Clearing the target would wipe what is to be replayed.
    if (&target == this)
        return;
    target.clear();
    for (std::size_t id = 0; id < instances.size(); ++id) {
        SearchInstance const &instance = instances[id];
        target.addSearchClass(instance.searchClass, instance.matchMode);
        for (auto const &constraint : instance.constraints)
            constraint->replay(id, target);
        if (instance.specificElement)
            target.setSpecificElement(instance.specificElement, id);
    }
    for (auto const &[ids, group] : joinGroups)
        for (auto const &constraint : group)
            constraint->replay(target);
    for (auto const &disjunction : disjunctions) {
        if (!disjunction->finished)
            continue;
        ReflectiveDisjunction *const copy = target.createDisjunction();
        for (auto const &constraint : disjunction->constraints)
            constraint->replayInto(*copy);
        copy->finish();
    }
    target.setResultLimit(limit);
    if (sorting)
        sorting->replay(target);
}

// --- disjunctions --------------------------------------------------------------------------

void ReflectiveDisjunctionImpl::addPropertyRelationValue(meta::Property const &property, ValueMatchRelation relation,
                                                         Value const &value, std::size_t instance) {
    constraints.push_back(query->makeValueConstraint(property, relation, value, instance));
    instances.insert(instance);
}

void ReflectiveDisjunctionImpl::finish() {
    if (finished)
        return;
    if (instances.size() == 1)
        query->instances[*instances.begin()].constraints.push_back(
            std::make_unique<SingleObjectDisjunctionConstraint>(this));
    finished = true;
}

bool ReflectiveDisjunctionImpl::SingleObjectDisjunctionConstraint::test(ModelElement::Impl const &element) const {
    for (auto const &constraint : group->constraints)
        if (constraint->test(element))
            return true;
    return false;
}

// --- construction --------------------------------------------------------------------------

std::unique_ptr<ReflectiveQuery> createNativeQuery(Model const &model) {
    auto query = std::make_unique<NativeKivraQuery>();
    query->setModel(model);
    return query;
}

std::unique_ptr<RetargetableQuery> createNativeQuery() { return std::make_unique<NativeKivraQuery>(); }

AbstractQuery::AbstractQuery(Model const &model) : query_(createNativeQuery()) { query_->setModel(model); }
AbstractQuery::AbstractQuery() : query_(createNativeQuery()) {}
AbstractQuery::~AbstractQuery() = default;

void AbstractQuery::setResultLimit(std::size_t limit) { query_->setResultLimit(limit); }
void AbstractQuery::setResultOffset(std::size_t offset) { query_->setResultOffset(offset); }

} // namespace kivra::query
