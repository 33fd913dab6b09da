#include <kivra/meta/ExtensionPrototype.hpp>

#include <kivra/meta/Class.hpp>
#include <kivra/meta/DynamicExtensions.hpp>
#include <kivra/meta/Extension.hpp>
#include <kivra/meta/Type.hpp>

namespace kivra::meta {

namespace {
template <class T> int compare(T const &a, T const &b) noexcept { return a < b ? -1 : (b < a ? 1 : 0); }
} // namespace

int ExtensionPrototype::compareWith(ExtensionPrototype const &other) const noexcept {
    if (int const c = compare(lower_, other.lower_))
        return c;
    if (int const c = compare(upper_, other.upper_))
        return c;
    if (int const c = compare(isOrdered_, other.isOrdered_))
        return c;
    if (int const c = compare(isUnique_, other.isUnique_))
        return c;
    if (int const c = name_.compare(other.name_))
        return c < 0 ? -1 : 1;
    if (int const c = typeName_.compare(other.typeName_))
        return c < 0 ? -1 : 1;
    return 0;
}

ExtensionPrototype Extension::Impl::createPrototype() const {
    Type const type = getType();
    return ExtensionPrototype()
        .setIsOrdered(getIsOrdered())
        .setIsUnique(getIsUnique())
        .setName(getName())
        .setTypeName(type ? type->getQualifiedName() : basalt::ustring())
        .setLower(getLower())
        .setUpper(getUpper() >= 2 ? ExtensionPrototype::unlimited : getUpper());
}

Class Extension::Impl::getExtendedMetaclass() const {
    DynamicExtensions const owner = getOwner();
    return owner ? owner->getOwningClass() : Class();
}

} // namespace kivra::meta
