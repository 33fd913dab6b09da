#pragma once
/// \file
/// Not API: what the generated getters of single references do on each read.

#include <kivra/ModelElement.hpp>

namespace kivra::detail {

/// The element a proxy held by `holder` stands for, or the proxy itself.
ModelElement resolveHeldProxy(ModelElement::Impl const &holder, ModelElement const &proxy);

/// Reads a reference member: a proxy that resolves is replaced in place by its element,
/// with no transaction and no notice; a destroyed element of another model reads as no
/// reference at all. A plain reference costs a null, a validity and a pointer test.
/// Resolving may load the model that the proxy names; while a shallow group runs that
/// model cannot join it, and the read raises `CannotJoinShallowTransaction` with the
/// member left as it was.
template <class H> H const &readReference(ModelElement::Impl const &holder, H &member) {
    ModelElement::Impl *target = member.get();
    if (!target)
        return member;
    if (target->isValid()) {
        if (!target->isProxy())
            return member;
        ModelElement const resolved = resolveHeldProxy(holder, member);
        if (resolved && !resolved->isProxy())
            if (auto *impl = dynamic_cast<typename H::Impl *>(resolved.get()))
                member = H::fromImpl(impl);
        return member;
    }
    if (target->getModelImpl() != holder.getModelImpl())
        member.reset();
    return member;
}

} // namespace kivra::detail
