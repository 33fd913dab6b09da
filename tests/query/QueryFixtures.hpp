#pragma once
// Elements and properties that the sample metamodel cannot stand for: an element that shows
// one given value for every property, so that comparisons and sorts can be driven by values
// of any type.

#include <kivra/Model.hpp>
#include <kivra/ModelElement.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Property.hpp>

#include <optional>
#include <utility>

namespace kivra::test {

/// An element whose every property reads as `value`; given `inPlace`, it also shows that
/// value's payload as its member, the way a generated element shows its fields.
class Reading final : public ModelElement::Impl {
public:
    static ModelElement create(Model const &model, Value value, std::optional<Value> inPlace = std::nullopt) {
        auto *impl = new (model) Reading(model, std::move(value));
        impl->inPlace_ = std::move(inPlace);
        ModelElement element = ModelElement::fromImpl(impl);
        impl->notifyCreated();
        return element;
    }

    meta::Class const &getMetaClass() const override { return ModelElement::metaClass(); }
    Value getPropertyValue(meta::Property const &, ReflectionPrivateTag const &) const override { return value_; }
    void const *nativeValueAddress(meta::Property::Impl const &) const noexcept override {
        return inPlace_ ? inPlace_->getPayload() : nullptr;
    }
    Changes *createChanges() const override { return new Changes(getUuid(), getModelImpl(), getMetaClass(), 0); }
    Storage *createStorage() const override { return new Storage(getUuid(), getModelImpl(), getMetaClass(), 1); }

private:
    Reading(Model const &model, Value value) : ModelElement::Impl(model, {}), value_(std::move(value)) {}
    void doDestroy(bool modelDestroying, bool multiModel) override {
        ModelElement::Impl::doDestroy(modelDestroying, multiModel);
    }

    Value value_;
    std::optional<Value> inPlace_;
};

/// A single-valued property of `type`; `lower` 1 makes it required.
inline meta::Property makeProperty(Model const &model, meta::Type const &type, std::uint32_t lower,
                                   std::uint32_t upper = 1) {
    meta::Property property = meta::Property::create(model);
    property->setName(u"reading");
    property->setType(type);
    property->setLower(lower);
    property->setUpper(upper);
    return property;
}

} // namespace kivra::test
