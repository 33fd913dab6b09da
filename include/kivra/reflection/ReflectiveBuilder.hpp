#pragma once
/// \file
/// The builder of elements of classes for which no code was generated.

#include <kivra/ModelElement.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Handles.hpp>

#include <memory>
#include <utility>
#include <vector>

namespace kivra::reflection {

/// Stages the values of a new reflective element of one class, by property, and makes it
/// as a generated builder does: plain values first, then references, then the children of
/// staged child builders, all in one revertible transaction. `meta::Class::instantiateBuilder`
/// gives one for a class that has no builder of its own.
class ReflectiveBuilder final : public ModelElement::Builder, private ModelElement::Builder::Level {
public:
    /// Raises `CannotUsePropertyWithoutType` when the class has a property without type.
    ReflectiveBuilder(Model const &model, meta::Class const &cls);
    ~ReflectiveBuilder() override;

    meta::Class const &getMetaClass() const override { return metaClass_; }

protected:
    ModelElement doCreate(bool noCascade, boost::uuids::uuid const &uuid) override;

private:
    std::uint64_t doSetOrAdd(meta::Property const &property, Value const &value) override;
    std::uint64_t doSetOrAdd(meta::Property const &property, std::unique_ptr<Builder> &child) override;
    void applyReferences(ModelElement::Impl &element) override;
    void cascadeCreation(ModelElement::Impl &element) override;
    static ModelElement::Impl *construct(Builder &builder, boost::uuids::uuid const &uuid);

    meta::Class metaClass_;
    /// Staged by property: plain values, references and entries, child builders.
    std::vector<std::pair<meta::Property, Value>> values_;
    std::vector<std::pair<meta::Property, Value>> references_;
    std::vector<std::pair<meta::Property, std::unique_ptr<Builder>>> children_;
};

} // namespace kivra::reflection
