#include "ModelSnapshot.hpp"

#include <kivra/Messages.hpp>
#include <kivra/ModelElement.hpp>
#include <kivra/ReferenceCollection.hpp>
#include <kivra/StringToStringMap.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/DataType.hpp>
#include <kivra/meta/Extension.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/reflection/ReflectiveDataType.hpp>
#include <kivra/meta/StandardTypes.hpp>

#include <basalt/i18n/Unicode.hpp>

#include <boost/uuid/uuid_io.hpp>

#include <algorithm>
#include <map>
#include <sstream>
#include <string>
#include <typeinfo>

namespace kivra::test {

namespace {

std::uintptr_t address(void const *object) { return reinterpret_cast<std::uintptr_t>(object); }

} // namespace

std::string describeValue(Value const &value, Identity identity) {
    if (!value.hasPayload())
        return "<none>";
    // A collection of values: the hashes of its entries, in its order.
    if (isCollection(value.getFlags()) && value.isManaged() && !dynamic_cast<meta::Class::Impl const *>(value.getType().get())) {
        std::string result = "[";
        for (Value const &entry : value.extractEntryValues())
            result += "#" + std::to_string(entry.hashValues()) + ",";
        return result + "]";
    }
    // A map of texts: its entries in key order.
    if (value.getType() == meta::StandardTypes::stringToStringMapMeta.get()) {
        StringToStringMap::Container const &map = StringToStringMap::fromValue(value).toSTLCollection();
        std::map<basalt::ustring, basalt::ustring> const sorted(map.begin(), map.end());
        std::string result = "{";
        for (auto const &[key, text] : sorted)
            result += basalt::i18n::ustring_to_utf8(key) + "=" + basalt::i18n::ustring_to_utf8(text) + ",";
        return result + "}";
    }
    // An element's collection: its entries in order, proxies where they stand.
    if (isCollection(value.getFlags()) && value.isManaged()) {
        std::string result = "[";
        for (ModelElement const &entry :
             static_cast<ReferenceCollection const *>(value.getPayload())->getAllValuesAndProxies())
            result += (entry.get() && entry->isProxy() ? "proxy " : "") +
                      describeValue(Value(ModelElement::metaClass(), entry), identity) + ",";
        return result + "]";
    }
    try {
        ModelElement const element = value.getElement();
        if (!element.get())
            return "<null>";
        std::string result = (element ? "" : "invalid ") + boost::uuids::to_string(element->getUuid());
        if (identity == Identity::Object)
            result += " at " + std::to_string(address(element.get()));
        return result;
    } catch (Error<messages::CannotCastIncompatibleTypes> const &) {
    }
    // A data type value, in either form: its fields in the type's order.
    if (auto *dataType = dynamic_cast<meta::DataType::Impl *>(value.getType().get())) {
        reflection::ReflectiveDataType const record = value.toReflectiveDataType();
        std::string result = "{";
        for (meta::Property const &field : dataType->getOwnedAttributes())
            result += describeValue(record.getPropertyValue(field), identity) + ",";
        return result + "}";
    }
    // A scalar: its hash stands for it.
    return "#" + std::to_string(value.hashValues());
}

// Above the highest index of any class the tests describe.
constexpr std::uint64_t maxIndex = 64;

ModelSnapshot snapshot(Model const &model, Identity identity, std::vector<basalt::ustring> const &extensions) {
    using Tag = ModelElement::Impl::ReflectionPrivateTag;
    ModelSnapshot result;
    for (ModelElement const &element : model->getAllElements()) {
        ElementPicture picture;
        ModelElement::Impl const &object = *element.get();
        picture.type = typeid(object).name();
        if (auto *container = element->containerImpl()) {
            picture.container = container->getUuid();
            if (identity == Identity::Object)
                picture.containerObject = address(container);
        }
        if (identity == Identity::Object)
            picture.object = address(&object);
        // The run-time twin leaves out some of the generated indices: gaps do not end it.
        for (std::uint64_t index = 1; index <= maxIndex; ++index) {
            meta::Property const property = element->getPropertyByIndex(index);
            if (!property)
                continue;
            // Made anew for each element: two models built alike differ there by design.
            if (property->isDynamicDefault()) {
                picture.values.push_back("dynamic");
                continue;
            }
            try {
                picture.values.push_back(describeValue(element->getPropertyValue(property, Tag::PRIVILEGED_ACCESS), identity));
            } catch (std::exception const &) {
                picture.values.push_back("<unreadable>");
            }
        }
        for (basalt::ustring const &name : extensions) {
            meta::Extension const extension = model->getExtension(element->getMetaClass(), name);
            if (!extension)
                continue;
            Value const value = element->getExtension(name);
            std::string text = std::string(name.begin(), name.end()) + "=";
            if (extension->getUpper() == 1)
                text += describeValue(value, identity);
            else
                for (Value const &entry : value.extractEntryValues())
                    text += describeValue(entry, identity) + ",";
            picture.values.push_back(std::move(text));
        }
        result.elements.emplace(element->getUuid(), std::move(picture));
    }
    for (ModelElement const &element : model->getTopLevelElements())
        result.topLevel.push_back(element->getUuid());
    std::sort(result.topLevel.begin(), result.topLevel.end());
    return result;
}

std::string describeDifference(ModelSnapshot const &expected, ModelSnapshot const &actual) {
    std::ostringstream out;
    for (auto const &[id, picture] : expected.elements) {
        auto const found = actual.elements.find(id);
        if (found == actual.elements.end()) {
            out << "missing element " << id;
            return out.str();
        }
        if (found->second.object != picture.object) {
            out << "element " << id << " is another object";
            return out.str();
        }
        if (found->second.container != picture.container || found->second.containerObject != picture.containerObject) {
            out << "element " << id << " in container " << found->second.container << ", expected " << picture.container;
            if (found->second.container == picture.container)
                out << " (another object)";
            return out.str();
        }
        if (found->second.type != picture.type) {
            out << "element " << id << " of type " << found->second.type << ", expected " << picture.type;
            return out.str();
        }
        for (std::size_t i = 0; i < picture.values.size() && i < found->second.values.size(); ++i)
            if (picture.values[i] != found->second.values[i]) {
                out << "element " << id << " property " << i + 1 << ": " << found->second.values[i] << ", expected "
                    << picture.values[i];
                return out.str();
            }
    }
    for (auto const &[id, picture] : actual.elements)
        if (!expected.elements.count(id)) {
            out << "unexpected element " << id;
            return out.str();
        }
    if (expected.topLevel != actual.topLevel)
        out << "top-level elements differ";
    else if (!(expected == actual))
        out << "the pictures differ";
    return out.str();
}

} // namespace kivra::test
