#pragma once
/// \file
/// The handle of metaclasses: the elements that describe the classes of elements.

#include <kivra/Handles.hpp>

namespace kivra::meta {

/// A class of the metamodel. Every element names its class through `getMetaClass()`;
/// `meta::Class` itself is an instance of itself.
class Class : public ModelElement {
public:
    class Impl;

    Class() noexcept = default;

    /// Defined with `Class::Impl`.
    Impl *get() const noexcept;
    Impl *operator->() const noexcept { return get(); }
};

} // namespace kivra::meta
