#pragma once
/// \file
/// What a model uses: its packages and whether it holds reified or reflective elements.

#include <kivra/Handles.hpp>
#include <kivra/Model.hpp>
#include <kivra/meta/Handles.hpp>

#include <cstdint>
#include <unordered_map>

#include <string>
#include <vector>

namespace kivra::meta {

/// Keeps account of what a model uses, told of every element created and destroyed.
class DataModelUsageProvider {
public:
    virtual ~DataModelUsageProvider() = default;
    /// The URIs of the used packages.
    virtual std::vector<std::u16string> getUsedPackageUris() const;
    /// The packages that the model's elements and endpoints are instances of.
    virtual std::vector<Package> getUsedPackages() const = 0;
    virtual ModelContent getModelContent() const = 0;
    virtual void elementCreated(ModelElement::Impl *) {}
    virtual void elementDestroying(ModelElement::Impl *) {}
    virtual void allElementsDestroyed() {}
};

/// The usage account of ordinary models: infers the content from the first element and
/// refuses elements of the other kind.
class DefaultModelUsageProvider : public DataModelUsageProvider {
public:
    explicit DefaultModelUsageProvider(ModelContent content) : content_(content) {}

    std::vector<Package> getUsedPackages() const override;
    ModelContent getModelContent() const override { return content_; }
    /// Counts the packages of the element's classes. Raises `InvalidReflectiveModelContent`
    /// or `InvalidReifiedModelContent` for an element of the other kind than the model's.
    void elementCreated(ModelElement::Impl *element) override;
    void elementDestroying(ModelElement::Impl *element) override;
    /// Forgets the counts and the inferred content; a declared content stays.
    void allElementsDestroyed() override;

private:
    /// Adds `delta` to the count of the element's class.
    void count(ModelElement::Impl const *element, int delta);

    struct ClassHash {
        std::size_t operator()(Class const &cls) const noexcept { return std::hash<ModelElement>()(cls); }
    };
    /// Live elements by class; the packages along each class chain are found when asked.
    std::unordered_map<Class, std::int64_t, ClassHash> counts_;
    /// The counter of the last class counted: elements come in runs of one class.
    Class::Impl const *lastClass_ = nullptr;
    std::int64_t *lastCounter_ = nullptr;
    ModelContent content_;
};

/// The usage account of the registry model: it uses the metamodel's own root package and
/// holds reified elements only, whatever is created in it.
class MetaRegistryUsageProvider : public DataModelUsageProvider {
public:
    explicit MetaRegistryUsageProvider(MetaRegistry const &registry) : registry_(registry) {}

    /// The root package of the metamodel's self-description, once it is registered.
    std::vector<Package> getUsedPackages() const override;
    ModelContent getModelContent() const override { return ModelContent::DeclaredReified; }

private:
    MetaRegistry const &registry_;
};

} // namespace kivra::meta
