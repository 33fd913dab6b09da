#pragma once
// The sample library metamodel twice: as generated code, and described at run time with
// no code, so that one suite can run over both and demand the same results.

#include <kivra/Model.hpp>
#include <kivra/ModelElement.hpp>
#include <kivra/ReferenceCollection.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/Property.hpp>

#include <basalt/ustring.hpp>

#include <ostream>
#include <string>
#include <string_view>

namespace kivra::test {

struct Flavour {
    std::string name;
    meta::Class shelf, book, novel, author;
};

/// The generated library.
Flavour const &generatedLibrary();
/// The same classes and properties, indices included, described at run time, and a
/// shelf's `edition` (index 12), which the generated library does not have.
Flavour const &runtimeLibrary();

inline void PrintTo(Flavour const *flavour, std::ostream *out) { *out << flavour->name; }

using Access = ModelElement::Impl::ReflectionPrivateTag;

inline meta::Property prop(ModelElement const &element, std::u16string_view name) {
    return element->getMetaClass()->getPropertyByName(basalt::ustring(name));
}
inline Value get(ModelElement const &element, std::u16string_view name, Access const &tag = Access::PUBLIC_ACCESS) {
    return element->getPropertyValue(prop(element, name), tag);
}
inline void set(ModelElement const &element, std::u16string_view name, Value const &value,
                Access const &tag = Access::PUBLIC_ACCESS) {
    element->setPropertyValue(prop(element, name), value, tag);
}
inline Value text(std::u16string_view value) { return Value(basalt::ustring(value)); }
inline Value ref(ModelElement const &element) { return Value(ModelElement::metaClass(), element); }
inline ModelElement element(ModelElement const &holder, std::u16string_view name) {
    return get(holder, name, Access::PRIVILEGED_ACCESS).getElement();
}
/// The generic view of an element collection property.
inline GenericCollectionInterface &many(ModelElement const &holder, std::u16string_view name) {
    Value const value = get(holder, name, Access::PRIVILEGED_ACCESS);
    return *static_cast<ReferenceCollection *>(const_cast<void *>(value.getPayload()))->getGenericInterface();
}

} // namespace kivra::test
