#pragma once
/// \file
/// The base of every element implementation.

#include <kivra/ElementImpl.hpp>
#include <kivra/Handles.hpp>
#include <kivra/Transaction.hpp>

#include <cstdint>

namespace kivra {

class ProxyId;

/// The base of every element: the link to its container, its model, and the protocol
/// that announces its creation, changes and destruction to the model.
///
/// Subclasses hold the properties; each generated operation answers for its own class
/// and passes everything else up, ending here. An element is kept alive by the model
/// while top level, by its container while contained, and by any handle.
class ModelElement::Impl : public ElementImpl {
public:
    ~Impl() override;

    Model getModel() const override;
    /// The raw owning model; never null.
    Model::Impl *getModelImpl() const noexcept { return model_; }

    /// True when the element has no container.
    bool isTopLevel() const noexcept { return containmentFeature_ == nullptr; }
    bool isProxy() const noexcept { return proxyId_ != nullptr; }
    /// True when `other` is not null and in the same model.
    bool isSameModel(Impl const *other) const noexcept { return other && other->model_ == model_; }
    /// The containing element, as a counted handle; null when top level.
    ModelElement container() const;
    /// The containing element, raw; null when top level.
    Impl *containerImpl() const noexcept { return containmentFeature_ ? container_ : nullptr; }

    /// True for elements driven by the metamodel alone.
    virtual bool isReflective() const { return false; }

    /// Announces a new element to its model: it becomes `Valid` and top level.
    void notifyCreated();
    /// Announces a change of the property at `index` before it happens; index 0 and
    /// `size_t(-1)` are no property.
    void notifyModifying(std::uint64_t index);

    /// Raises `CannotModifyProxy` for a proxy: the first step of every mutator.
    void checkModifiable() const;
    /// Opens the transaction of one change of the property at `index` and announces the
    /// change: the middle of every typed setter, shared so that setters stay one line.
    Transaction beginModification(std::uint64_t index);

    /// Destroys the element and its contained subtree in one transaction. Harmless on a
    /// destroyed element.
    void destroy();
    /// Destroys the element and its subtree inside the caller's transaction.
    void destroyRecursively(bool modelDestroying, bool removeFromContainer, bool multiModel);

protected:
    friend class Model::Impl;

    /// Starts `UnderConstruction`, top level. Raises `CannotCreateWithoutModel` for a null
    /// or destroyed model.
    Impl(Model const &model, boost::uuids::uuid const &uuid);

    void invalidate() override;
    /// Gives up the identity of an element that lost a UUID clash, so that its end does
    /// not remove the winner from the model's tables.
    void clearUuid() noexcept { uuid_ = boost::uuids::uuid{}; }
    /// Roll-back brings a destroyed element back with its identity.
    void resurrect() noexcept { validity_ = Valid; }

    /// Hook after the model has entered the new element.
    virtual void didCreate() {}
    /// Hook before anything of a destruction happens.
    virtual void aboutToDestroy() {}
    /// Tells the model; subclasses that override it end in this one.
    virtual void notifyDestroying();
    /// Clears every reference with an opposite, so that the far ends forget this element.
    virtual void disassociateIncoming() {}
    /// Destroys what the element contains; generated overrides end in this one.
    virtual void doDestroy(bool modelDestroying, bool multiModel) = 0;

    /// The containing element; meaningful only while `containmentFeature_` is set.
    Impl *container_ = nullptr;
    /// The container's composite property that holds this element (a `meta::Property`);
    /// an element is contained exactly when this is set.
    Impl *containmentFeature_ = nullptr;
    Model::Impl *model_;
    /// Values of the model's extensions of this element's class; made on first use.
    void *extensionValues_ = nullptr;
    /// Set exactly for a proxy.
    ProxyId *proxyId_ = nullptr;
};

inline ModelElement::Impl *ModelElement::get() const noexcept { return static_cast<Impl *>(rawImpl()); }
inline ModelElement::ModelElement(Impl *impl, bool addReference) noexcept : HandleBase(impl, addReference) {}
inline ModelElement ModelElement::fromImpl(Impl *impl) noexcept { return ModelElement(impl, true); }
inline ModelElement::Impl *ModelElement::release() noexcept { return static_cast<Impl *>(releaseImpl()); }

} // namespace kivra
