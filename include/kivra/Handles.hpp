#pragma once
/// \file
/// The handles of models, constellations and elements: one pointer and one counted
/// reference each, cheap to copy, compared by identity.
///
/// To call through a handle (`operator->`), include the header of its implementation:
/// `kivra/Model.hpp`, `kivra/ModelConstellation.hpp` or `kivra/ModelElement.hpp`.

#include <kivra/detail/Handle.hpp>

#include <cstddef>
#include <functional>
#include <string>

namespace kivra {

namespace detail {
class DeferredReleases;
} // namespace detail

/// A counted handle on a model. Converts to false when null or destroyed.
class Model : protected detail::HandleBase {
public:
    class Impl;
    class InProgressIndicator;
    class ParseInProgressIndicator;
    class DataSourceLoadingInProgressIndicator;
    class DataSourceModificationInProgressIndicator;
    class Freezer;
    class Thawer;

    Model() noexcept = default;

    using HandleBase::reset;
    using HandleBase::operator bool;
    using HandleBase::operator!;

    /// The implementation, unchecked: null for a null handle.
    Impl *get() const noexcept;
    Impl *operator->() const noexcept { return get(); }
    void swap(Model &other) noexcept { swapImpl(other); }

    /// The metaclass that describes models.
    static meta::Class const &metaClass();
    /// Enters that metaclass into the registry model once; a later call finds it there.
    static void initializeType(meta::MetaRegistry &registry);

    /// A new model in the `ModelSpec`'s constellation when it is valid, else in a new one.
    static Model create(ModelSpec const &spec);
    /// A new model in `constellation`, or in a new one when the handle is null.
    static Model create(ModelConstellation const &constellation, WorkQueueFactory const &factory = {});
    static Model create(boost::uuids::uuid const &uuid, ModelConstellation const &constellation,
                        WorkQueueFactory const &factory = {});
    static Model createWithLoggingDomain(boost::uuids::uuid const &uuid, ModelConstellation const &constellation,
                                         WorkQueueFactory const &factory, std::string const &domain);
    /// A stand-alone model with an empty URI and a work queue of its own.
    static Model createTransientModel(ModelSpec const &spec);
    static Model createTransientModel(boost::uuids::uuid const &uuid = {}, WorkQueueFactory const &factory = {});
    /// A stand-alone model with the fixed URI `uri`.
    static Model createRegistryModel(std::u16string const &uri, ModelSpec const &spec);
    static Model createRegistryModel(std::u16string const &uri, boost::uuids::uuid const &uuid = {},
                                     WorkQueueFactory const &factory = {});

    friend bool operator==(Model const &a, Model const &b) noexcept { return a.rawImpl() == b.rawImpl(); }

private:
    Model(Impl *impl, bool addReference) noexcept;
    Impl *release() noexcept;

    friend class ModelElement;
    friend class ModelConstellation;
};

/// A counted handle on a group of models that commit together and refer to each other.
class ModelConstellation : protected detail::HandleBase {
public:
    class Impl;

    ModelConstellation() noexcept = default;

    using HandleBase::reset;
    using HandleBase::operator bool;
    using HandleBase::operator!;

    Impl *get() const noexcept;
    Impl *operator->() const noexcept { return get(); }
    void swap(ModelConstellation &other) noexcept { swapImpl(other); }

    /// The metaclass that describes constellations.
    static meta::Class const &metaClass();
    /// Enters that metaclass into the registry model once; a later call finds it there.
    static void initializeType(meta::MetaRegistry &registry);

    /// A new, empty constellation whose work queue `factory` makes (the default queue
    /// when empty).
    static ModelConstellation create(WorkQueueFactory const &factory = {});

    friend bool operator==(ModelConstellation const &a, ModelConstellation const &b) noexcept {
        return a.rawImpl() == b.rawImpl();
    }

private:
    /// Always takes a reference.
    explicit ModelConstellation(Impl *impl) noexcept;
    Impl *release() noexcept;

    friend class Model;
};

/// A counted handle on an element. Converts to false when null or destroyed, while
/// `get()` still reaches the destroyed element, which keeps its UUID.
class ModelElement : protected detail::HandleBase {
public:
    class Impl;
    class Builder;
    class BuilderWrapper;
    /// One search instance of a typed query; defined in `kivra/query/Constrainables.hpp`.
    class Constrainables;
    /// The key that lets an element build the collections of its properties.
    class CollectionPrivateTag {
        friend class Impl;
        CollectionPrivateTag() = default;
    };

    ModelElement() noexcept = default;

    using HandleBase::reset;
    using HandleBase::operator bool;
    using HandleBase::operator!;

    Impl *get() const noexcept;
    Impl *operator->() const noexcept { return get(); }
    void swap(ModelElement &other) noexcept { swapImpl(other); }

    /// The metaclass at the root of every element class.
    static meta::Class const &metaClass();
    /// Enters that metaclass into the registry model once; a later call finds it there.
    static void initializeType(meta::MetaRegistry &registry);
    /// A proxy of an element of class `cls` named by `proxyId`, held by references in
    /// `model` until it resolves. Raises `NoSuchType` for a class that cannot have one.
    static ModelElement createProxy(Model const &model, meta::Class const &cls, ProxyId const &proxyId);
    /// A new element of `cls` driven by its description alone, announced to `model`; a nil
    /// `uuid` draws a fresh one. Raises `CannotCreateWithoutModel` without a model.
    static ModelElement createReflective(Model const &model, meta::Class const &cls, boost::uuids::uuid const &uuid);
    /// A counted handle on `impl`, or a null handle.
    static ModelElement fromImpl(Impl *impl) noexcept;

    /// Handles compare by the identity of the element.
    friend bool operator==(ModelElement const &a, ModelElement const &b) noexcept {
        return a.rawImpl() == b.rawImpl();
    }

protected:
    /// Adopts `impl`; takes a reference only when `addReference` (the false form adopts a
    /// reference the caller already owns).
    ModelElement(Impl *impl, bool addReference) noexcept;
    Impl *release() noexcept;

    friend class Model;
    friend class detail::DeferredReleases;
    friend class ElementSequenceBase; // takes over the model's reference on a new child
    friend struct std::hash<ModelElement>;
};

} // namespace kivra

/// The UUID hash of the element; 0 for a null handle.
template <> struct std::hash<kivra::ModelElement> {
    std::size_t operator()(kivra::ModelElement const &element) const noexcept;
};
