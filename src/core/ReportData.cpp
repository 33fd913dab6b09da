#include "core/RecordLog.hpp"

#include <kivra/ReportData.hpp>

#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/Extension.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/StructuredType.hpp>
#include <kivra/meta/detail/Metaclasses.hpp>

namespace kivra {

ReportData::ReportData(Model::Impl *model, std::shared_ptr<detail::RecordLog const> changes, meta::TransactionOrigin origin,
                       bool deep, bool detectAndRevert, bool allElementsDestroyed,
                       boost::optional<Value> commitArgument)
    : changes_(std::move(changes)), model_(model), commitArgument_(std::move(commitArgument)),
      detectAndRevert_(detectAndRevert), deep_(deep), allElementsDestroyed_(allElementsDestroyed),
      origin_(std::move(origin)) {}

Model ReportData::getModel() const { return model_.get()->getModel(); }

bool ReportData::containsAnyModelElementChanges() const noexcept {
    return allElementsDestroyed_ || !created_.empty() || !modified_.empty() || !destroyed_.empty() ||
           !createdAndDestroyed_.empty();
}

bool ReportData::containsElementChanges(meta::Class const &cls) const {
    if (allElementsDestroyed_)
        return true;
    for (auto const *list : {&created_, &modified_, &destroyed_, &createdAndDestroyed_})
        for (ModelElement const &element : *list)
            if (meta::Class const &own = element->getMetaClass(); own.get() && own->isA(cls))
                return true;
    return false;
}

void ReportData::processElement(ModelElement const &element, ModelElement::Impl::Changes &record) {
    if (record.isCreated() && record.isDestroyed())
        createdAndDestroyed_.push_back(element);
    else if (record.isCreated())
        created_.push_back(element);
    else if (record.isDestroyed())
        destroyed_.push_back(element);
    else if (!detectAndRevert_ || record.revertUnchanged(element.get()))
        modified_.push_back(element);
}

ModelElement::Impl::Changes *ReportData::recordOf(ModelElement const &element) const {
    if (!element.get())
        return nullptr;
    return changes_->find(element.get());
}

bool ReportData::isChanged(ModelElement const &element, meta::Property const &property) const {
    ModelElement::Impl::Changes const *record = recordOf(element);
    return record && record->isChanged(property);
}

std::vector<meta::Property> ReportData::getChangedProperties(ModelElement const &element) const {
    std::vector<meta::Property> result;
    ModelElement::Impl::Changes const *record = recordOf(element);
    if (!record)
        return result;
    std::vector<meta::Property> changed;
    for (std::uint64_t index = 1;; ++index) {
        meta::Property property = element->getPropertyByIndex(index);
        if (!property.get())
            break;
        if (record->isChanged(index))
            changed.push_back(std::move(property));
    }
    // From the element's own class up to the root, each class's own properties in their
    // order; indices run the other way, from the root down.
    for (meta::Class cls = element->getMetaClass(); cls.get() && !changed.empty(); cls = cls->getSuperclass())
        for (auto property = changed.begin(); property != changed.end();)
            if (meta::detail::owningTypeOf(*property).get() == cls.get()) {
                result.push_back(std::move(*property));
                property = changed.erase(property);
            } else {
                ++property;
            }
    // What no class of the chain owns keeps its place at the end.
    result.insert(result.end(), changed.begin(), changed.end());
    return result;
}

bool ReportData::isExtensionChanged(ModelElement const &element, basalt::ustring const &name) const {
    ModelElement::Impl::Changes const *record = recordOf(element);
    return record && record->isExtensionChanged(name);
}

std::vector<meta::Extension> ReportData::getChangedExtensions(ModelElement const &element) const {
    ModelElement::Impl::Changes const *record = recordOf(element);
    return record ? record->getChangedExtensions() : std::vector<meta::Extension>();
}

Value ReportData::getExtensionOldValue(ModelElement const &element, basalt::ustring const &name) const {
    if (!deep_)
        raise<messages::GetOldValueFromNonDeep>();
    ModelElement::Impl::Changes const *record = recordOf(element);
    if (!record) {
        meta::Class const &cls = element.get() ? element->getMetaClass() : ModelElement::metaClass();
        raise<messages::NoSuchProperty>(name, cls.get() ? cls->getQualifiedName() : basalt::ustring());
    }
    return static_cast<ModelElement::Impl::Storage const *>(record)->getExtensionOldValue(name);
}

Value ReportData::getOldValue(ModelElement const &element, meta::Property const &property) const {
    if (!deep_)
        raise<messages::GetOldValueFromNonDeep>();
    ModelElement::Impl::Changes *record = recordOf(element);
    meta::StructuredType const owner = meta::detail::owningTypeOf(property);
    meta::Class const &cls = element.get() ? element->getMetaClass() : ModelElement::metaClass();
    if (!record || !property || (owner.get() && cls.get() && !cls->isA(owner)))
        return Value::createEmptyValue(property);
    return static_cast<ModelElement::Impl::Storage *>(record)->getOldValue(
        property, ModelElement::Impl::ReflectionPrivateTag::PUBLIC_ACCESS);
}

} // namespace kivra
