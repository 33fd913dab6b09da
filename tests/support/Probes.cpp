#include "Probes.hpp"

#include <kivra/ChangeRecords.hpp>

namespace kivra::test {

namespace {
meta::Class const &noClass() {
    static meta::Class const none;
    return none;
}

} // namespace


Probe::Impl *Probe::get() const noexcept { return static_cast<Impl *>(ModelElement::get()); }
Probe::Probe(Impl *impl, bool addReference) noexcept : ModelElement(impl, addReference) {}

Probe Probe::create(Model const &model, boost::uuids::uuid const &uuid) {
    auto *impl = new (model) Impl(model, uuid);
    Probe probe(impl, true);
    impl->notifyCreated();
    return probe;
}

meta::Class const &Probe::Impl::getMetaClass() const { return noClass(); }

ModelElement::Impl::Changes *Probe::Impl::createChanges() const {
    return new Changes(getUuid(), getModelImpl(), getMetaClass(), 0);
}
ModelElement::Impl::Storage *Probe::Impl::createStorage() const {
    return new Storage(getUuid(), getModelImpl(), getMetaClass(), 1);
}

Probe::Impl::~Impl() {
    ++deletions;
    if (onDelete)
        onDelete(this);
}

class ReflectiveNote::Impl final : public ModelElement::Impl {
public:
    Impl(Model const &model, boost::uuids::uuid const &uuid) : ModelElement::Impl(model, uuid) {}
    meta::Class const &getMetaClass() const override { return noClass(); }
    bool isReflective() const override { return true; }
    Changes *createChanges() const override { return new Changes(getUuid(), getModelImpl(), getMetaClass(), 0); }
    Storage *createStorage() const override { return new Storage(getUuid(), getModelImpl(), getMetaClass(), 1); }
    void doDestroy(bool modelDestroying, bool multiModel) override {
        ModelElement::Impl::doDestroy(modelDestroying, multiModel);
    }
};

ReflectiveNote ReflectiveNote::create(Model const &model, boost::uuids::uuid const &uuid) {
    auto *impl = new (model) Impl(model, uuid);
    impl->addRef();
    ReflectiveNote note(impl);
    impl->notifyCreated();
    return note;
}

} // namespace kivra::test
