#include <kivra/ModelElement.hpp>

#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/UuidLiteral.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/detail/Metaclasses.hpp>
#include <kivra/ModelConstellation.hpp>

namespace kivra {

ModelElement::Impl::Impl(Model const &model, boost::uuids::uuid const &uuid)
    : ElementImpl(uuid, UnderConstruction), model_(model.get()) {
    if (!model)
        raise<messages::CannotCreateWithoutModel>();
}

ModelElement::Impl::~Impl() {
    guardAgainstReentrantDeletion();
    if (validity_ > 0) {
        Model keep = model_->getModel();
        model_->remove(this);
    }
}

meta::Class const &ModelElement::metaClass() {
    static meta::Class const &slot = meta::detail::metaclassSlot(parseUuidLiteral("42663bf5-8b3d-3c82-938a-ed709e37a269"));
    return slot;
}

Model ModelElement::Impl::getModel() const { return model_->getModel(); }

ModelElement ModelElement::Impl::container() const { return ModelElement(containerImpl(), true); }

void ModelElement::Impl::notifyCreated() {
    validity_ = Valid;
    model_->elementCreated(this, /*topLevel=*/true);
    didCreate();
}

void ModelElement::Impl::notifyModifying(std::uint64_t index) {
    if (index == 0 || index == std::uint64_t(-1) || validity_ == UnderConstruction || validity_ == Proxy)
        return;
    model_->elementModifying(this, index);
}

void ModelElement::Impl::checkModifiable() const {
    if (isProxy())
        raise<messages::CannotModifyProxy>();
}

Transaction ModelElement::Impl::beginModification(std::uint64_t index) {
    Transaction transaction = model_->beginTransaction(false);
    notifyModifying(index);
    return transaction;
}

void ModelElement::Impl::notifyDestroying() { model_->elementDestroying(this); }

void ModelElement::Impl::destroy() {
    if (validity_ == Invalid)
        return;
    ModelElement keep(this, true);
    bool const multiModel = model_->constellationImpl() && model_->constellationImpl()->isMultiModelConstellation();
    Transaction transaction = model_->beginTransaction(false);
    if (validity_ != Invalid) {
        if (!isProxy()) {
            aboutToDestroy();
            notifyDestroying();
            disassociateIncoming();
            doDestroy(/*modelDestroying=*/false, multiModel);
        }
        invalidate();
    }
    transaction.commit();
}

void ModelElement::Impl::destroyRecursively(bool modelDestroying, bool, bool multiModel) {
    if (validity_ == Invalid)
        return;
    // The model's table may hold the last reference: the element must outlive this call.
    ModelElement keep(this, true);
    if (!isProxy()) {
        aboutToDestroy();
        notifyDestroying();
        if (!modelDestroying)
            disassociateIncoming();
        doDestroy(modelDestroying, multiModel);
    }
    invalidate();
}

void ModelElement::Impl::invalidate() { ElementImpl::invalidate(); }

void ModelElement::Impl::doDestroy(bool, bool) {}

} // namespace kivra
