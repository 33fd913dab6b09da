#include <kivra/reflection/ReflectiveBuilder.hpp>

#include "reflection/ClassLayout.hpp"

#include <kivra/ElementId.hpp>
#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/ReferenceCollection.hpp>
#include <kivra/AbstractPrimitiveCollection.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/reflection/ReflectiveModelElementImpl.hpp>

namespace kivra::reflection {

using detail::ClassLayout;
using detail::PropertySlot;
using detail::SlotKind;
using Tag = ModelElement::Impl::ReflectionPrivateTag;


ReflectiveBuilder::ReflectiveBuilder(Model const &model, meta::Class const &cls)
    : ModelElement::Builder(model, ClassLayout::of(cls).propertyCount + 1), ModelElement::Builder::Level(static_cast<ModelElement::Builder &>(*this), nullptr),
      metaClass_(cls) {
    top_ = this;
}

ReflectiveBuilder::~ReflectiveBuilder() = default;

namespace {

std::uint64_t indexOf(meta::Property const &property) {
    return std::uint64_t(std::max(property->getPropertyIndex(), 0));
}

// Replaces what was staged on `property` before, as a second call of a typed setter does.
template <class T>
void stage(std::vector<std::pair<meta::Property, T>> &staged, meta::Property const &property, T value) {
    for (auto &[at, held] : staged)
        if (at == property) {
            held = std::move(value);
            return;
        }
    staged.emplace_back(property, std::move(value));
}

} // namespace

std::uint64_t ReflectiveBuilder::doSetOrAdd(meta::Property const &property, Value const &value) {
    PropertySlot const *s = property ? ClassLayout::of(metaClass_).find(property.get()) : nullptr;
    // A map of texts is filled on the element, as generated builders have no stage for it.
    if (!s || s->kind == SlotKind::ContainerEnd || s->kind == SlotKind::StringMap)
        return notOwn;
    if (s->kind == SlotKind::Plain) {
        ReflectiveModelElementImpl::checkPlainValue(property, value);
        stage(values_, property, value);
    }
    else if (s->kind == SlotKind::Reference)
        stage(references_, property, value);
    else
        // To-many: the entries add up, as the typed `add` of a generated builder does.
        references_.emplace_back(property, value);
    return indexOf(property);
}

std::uint64_t ReflectiveBuilder::doSetOrAdd(meta::Property const &property, std::unique_ptr<Builder> &child) {
    PropertySlot const *s = property ? ClassLayout::of(metaClass_).find(property.get()) : nullptr;
    if (!s || !child || !property->getIsComposite() || !fits(*child, property))
        return notOwn;
    if (s->kind == SlotKind::Reference) {
        for (auto &[at, held] : children_)
            if (at == property) {
                held = std::move(child);
                return indexOf(property);
            }
    }
    children_.emplace_back(property, std::move(child));
    return indexOf(property);
}

ModelElement::Impl *ReflectiveBuilder::construct(Builder &builder, boost::uuids::uuid const &uuid) {
    auto &self = static_cast<ReflectiveBuilder &>(builder);
    Model const &model = self.getModel();
    auto *const element = new (model) ReflectiveModelElementImpl(model, self.metaClass_, uuid);
    // The plain values go in before the element is announced, as a generated constructor
    // takes them: a read-only property is written here too. They were checked when staged.
    try {
        for (auto const &[property, value] : self.values_)
            if (self.isSet(indexOf(property)))
                element->takeStagedValue(property, value);
    } catch (...) {
        // Never announced and held by nobody: it goes with what its slots own, and gives
        // back its hold on the model.
        delete element;
        throw;
    }
    return element;
}

ModelElement ReflectiveBuilder::doCreate(bool noCascade, boost::uuids::uuid const &uuid) {
    return runCreation(noCascade, uuid, &construct);
}

void ReflectiveBuilder::applyReferences(ModelElement::Impl &element) {
    for (auto const &[property, value] : references_) {
        if (!isSet(indexOf(property)))
            continue;
        if (property->getUpper() == 1) {
            element.setPropertyValue(property, value, Tag::PRIVILEGED_ACCESS);
            continue;
        }
        Value const collection = element.getPropertyValue(property, Tag::PRIVILEGED_ACCESS);
        if (dynamic_cast<meta::Class::Impl const *>(property->getType().get())) {
            auto *target = static_cast<ReferenceCollection *>(const_cast<void *>(collection.getPayload()));
            for (Value const &entry : value.extractEntryValues())
                addTo(*target, entry.getElement());
        } else {
            auto *target = static_cast<AbstractPrimitiveCollection *>(const_cast<void *>(collection.getPayload()));
            for (Value const &entry : value.extractEntryValues())
                target->genericAdd(entry);
        }
    }
}

void ReflectiveBuilder::cascadeCreation(ModelElement::Impl &element) {
    for (auto const &[property, child] : children_) {
        if (!isSet(indexOf(property)) || !child)
            continue;
        ModelElement const made = createChild(*child);
        if (property->getUpper() == 1) {
            element.setPropertyValue(property, Value(property->getType(), made), Tag::PRIVILEGED_ACCESS);
        } else {
            Value const collection = element.getPropertyValue(property, Tag::PRIVILEGED_ACCESS);
            addTo(*static_cast<ReferenceCollection *>(const_cast<void *>(collection.getPayload())), made);
        }
    }
}

} // namespace kivra::reflection
