#pragma once
/// \file
/// Not API: what the generated getters of single references do on each read.

#include <kivra/ModelElement.hpp>

namespace kivra::detail {

/// The element a proxy held by `holder` stands for, or the proxy itself.
ModelElement resolveHeldProxy(ModelElement::Impl const &holder, ModelElement const &proxy);

/// As `resolveHeldProxy`, looking only at models already present.
ModelElement peekResolveHeldProxy(ModelElement::Impl const &holder, ModelElement const &proxy);

/// False while `holder`'s model is frozen: other threads may then be reading the same
/// member, so a read must leave it as it is.
bool mayStoreOnRead(ModelElement::Impl const &holder) noexcept;

/// Whether `holder` may keep `resolved` in place of the proxy it held: not while its model
/// is frozen, nor while `resolved` is new in a transaction, whose roll-back would leave the
/// holder with a dead element where the proxy was. Storing is recorded nowhere, so the
/// answer alone changes until the transaction ends.
inline bool mayStoreResolution(ModelElement::Impl const &holder, ModelElement::Impl const &resolved) noexcept {
    return !resolved.isNewInTransaction() && mayStoreOnRead(holder);
}

/// Reads a reference member: a proxy that resolves is replaced in place by its element,
/// with no transaction and no notice; a destroyed element of another model reads as no
/// reference at all, and the member lets go of it once no roll-back can bring it back. In
/// a frozen model the member stays as it is and only the answer changes, so that readers
/// on several threads never write; so it does while the element is new in a transaction
/// that may yet roll back.
/// A plain reference costs a null, a validity and a pointer test.
/// Resolving may load the model that the proxy names; while a shallow group runs that
/// model cannot join it, and the read raises `CannotJoinShallowTransaction` with the
/// member left as it was.
template <class H> H readReference(ModelElement::Impl const &holder, H &member) {
    ModelElement::Impl *target = member.get();
    if (!target)
        return member;
    if (target->isValid()) {
        if (!target->isProxy())
            return member;
        ModelElement const resolved = resolveHeldProxy(holder, member);
        if (resolved && !resolved->isProxy())
            if (auto *impl = dynamic_cast<typename H::Impl *>(resolved.get())) {
                if (!mayStoreResolution(holder, *impl))
                    return H::fromImpl(impl);
                member = H::fromImpl(impl);
            }
        return member;
    }
    if (target->getModelImpl() != holder.getModelImpl()) {
        // Destroyed by a transaction still running, the element may come back: the member
        // keeps it until the transaction ends.
        if (!mayStoreOnRead(holder) || target->isDestroyedInTransaction())
            return H();
        member.reset();
    }
    return member;
}

/// Whether a reference member holds `other`, or a proxy that stands for it, which then
/// takes its place: the far end's question while it resolves, which changes nothing.
template <class H> bool holdsProxyTo(ModelElement::Impl const &holder, H &member, ModelElement const &other) {
    if (member == other)
        return true;
    if (!member.get() || !member->isProxy() || !other.get())
        return false;
    if (peekResolveHeldProxy(holder, member) != other)
        return false;
    auto *impl = dynamic_cast<typename H::Impl *>(other.get());
    if (!impl)
        return false;
    member = H::fromImpl(impl);
    return true;
}

} // namespace kivra::detail
