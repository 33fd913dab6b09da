#include <kivra/StringToStringMap.hpp>

#include "core/ValuePayloads.hpp"

#include <kivra/Messages.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/StandardTypes.hpp>

#include <stdexcept>

namespace kivra {

namespace {
// Small maps are the rule: a handful of labels on an element.
constexpr std::size_t initialBuckets = 8;

void prepare(StringToStringMap::Container &container) {
    container.max_load_factor(1.0f);
    container.rehash(initialBuckets);
}
} // namespace

StringToStringMap::StringToStringMap() : AbstractOwnedCollection(nullptr, nullptr) { prepare(container); }

StringToStringMap::StringToStringMap(ModelElement::CollectionPrivateTag const &, ModelElement::Impl *owner,
                                     meta::Property::Impl *property)
    : AbstractOwnedCollection(owner, property) {
    prepare(container);
}

StringToStringMap::~StringToStringMap() = default;

meta::Type StringToStringMap::getCollectionType() const {
    return meta::StandardTypes::stringToStringMapMeta.get();
}

void StringToStringMap::insert(basalt::ustring const &key, basalt::ustring const &value,
                               CollisionResolution collision) {
    // The collision is settled before any frame: a refused or kept one opens no transaction.
    auto const found = container.find(key);
    if (found != container.end()) {
        if (found->second == value || collision == CollisionResolution::KeepExisting)
            return;
        if (collision == CollisionResolution::Fail)
            raise<messages::UniquenessConstraint>();
    }
    Operation operation(*this);
    modifying();
    container.insert_or_assign(key, value);
    operation.commit();
}

void StringToStringMap::merge(StringToStringMap const &other) {
    Operation operation(*this);
    modifying();
    if (&other != this)
        for (auto const &[key, value] : other.container)
            container.insert_or_assign(key, value);
    operation.commit();
}

void StringToStringMap::assign(StringToStringMap const &other) { assign(other.container); }

void StringToStringMap::assign(Container const &other) {
    Operation operation(*this);
    modifying();
    if (&other != &container) {
        container = other;
        container.rehash(other.size());
    }
    operation.commit();
}

void StringToStringMap::assign(Container &&other) {
    Operation operation(*this);
    modifying();
    if (&other != &container) {
        container.clear();
        container.swap(other);
    }
    operation.commit();
}

void StringToStringMap::copyValues(StringToStringMap const &other) { assign(other.container); }

void StringToStringMap::copyContents(AbstractOwnedCollection const &other) {
    copyValues(static_cast<StringToStringMap const &>(other));
}

basalt::ustring const &StringToStringMap::at(basalt::ustring const &key) const {
    auto const found = container.find(key);
    if (found == container.end())
        throw std::out_of_range("invalid unordered_map<K, T> key");
    return found->second;
}

StringToStringMap::const_iterator StringToStringMap::erase(const_iterator position) {
    Operation operation(*this);
    modifying();
    const_iterator const next = container.erase(position);
    operation.commit();
    return next;
}

StringToStringMap::const_iterator StringToStringMap::erase(const_iterator first, const_iterator last) {
    Operation operation(*this);
    modifying();
    const_iterator const next = container.erase(first, last);
    operation.commit();
    return next;
}

std::size_t StringToStringMap::erase(basalt::ustring const &key) {
    if (container.find(key) == container.end())
        return 0;
    Operation operation(*this);
    modifying();
    std::size_t const erased = container.erase(key);
    operation.commit();
    return erased;
}

void StringToStringMap::clear() {
    Operation operation(*this);
    modifying();
    container.clear();
    operation.commit();
}

Value StringToStringMap::toValue() {
    // No payload functions: copies share the pointer, and equal values are the same map.
    return Value(ValueMeta(getCollectionType(), ValueFlags::Single), this, nullptr);
}

StringToStringMap &StringToStringMap::fromValue(Value const &value) {
    meta::Type const &type = value.getType();
    if (value.getFlags() != ValueFlags::Single || !value.hasPayload() || value.getPayloadFunctions() ||
        type != meta::StandardTypes::stringToStringMapMeta.get())
        raise<messages::CannotCastIncompatibleTypes>(type.get() ? type->getQualifiedName() : basalt::ustring());
    return *static_cast<StringToStringMap *>(const_cast<void *>(value.getPayload()));
}

std::unique_ptr<StringToStringMap> StringToStringMap::cloneFreeStanding() const {
    std::unique_ptr<StringToStringMap> copy(new (nullptr) StringToStringMap());
    copy->container = container;
    return copy;
}

void StringToStringMap::restoreFrom(StringToStringMap const *stored) {
    Operation operation(*this);
    modifying();
    if (stored)
        container = stored->container;
    else
        container.clear();
    operation.commit();
}

} // namespace kivra
