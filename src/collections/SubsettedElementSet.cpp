#include <kivra/SubsettedElementSet.hpp>

#include <kivra/Messages.hpp>
#include <kivra/meta/Class.hpp>

namespace kivra {

SubsettedElementSetBase::SubsettedElementSetBase(ElementMapBody &superset, EntryClass entryClass, Predicate predicate)
    : ReferenceCollection(superset.getOwnerImpl(), nullptr, nullptr, &wrapper_), superset_(&superset),
      entryClass_(entryClass), predicate_(std::move(predicate)) {}

SubsettedElementSetBase::~SubsettedElementSetBase() = default;

meta::Type SubsettedElementSetBase::getCollectionType() const { return entryClass_(); }

bool SubsettedElementSetBase::passes(ModelElement const &element) const {
    return element.get() && isEntryClass(element, entryClass_()) && (!predicate_ || predicate_(element));
}

bool SubsettedElementSetBase::empty() const {
    for (ModelElement const &entry : superset_->getAllValues())
        if (passes(entry))
            return false;
    return true;
}

std::size_t SubsettedElementSetBase::size() const {
    std::size_t count = 0;
    for (ModelElement const &entry : superset_->getAllValues())
        count += passes(entry);
    return count;
}

bool SubsettedElementSetBase::contains(ModelElement const &element) const {
    return passes(element) && superset_->contains(element);
}

std::vector<ModelElement> SubsettedElementSetBase::getAllValues() const {
    std::vector<ModelElement> const all = superset_->getAllValues();
    std::vector<ModelElement> passing;
    passing.reserve(std::size_t(std::count_if(all.begin(), all.end(), [&](auto const &e) { return passes(e); })));
    for (ModelElement const &entry : all)
        if (passes(entry))
            passing.push_back(entry);
    return passing;
}

void SubsettedElementSetBase::replaceProxy(ModelElement const &element, std::size_t index) {
    superset_->replaceProxy(element, index);
}

void SubsettedElementSetBase::resolveAll() { superset_->resolveAll(); }

void SubsettedElementSetBase::resolveLocal() { static_cast<ReferenceCollection &>(*superset_).resolveLocal(); }

std::size_t SubsettedElementSetBase::WrapperInterface::genericSize() const { return view_.size(); }

bool SubsettedElementSetBase::WrapperInterface::genericEmpty() const { return view_.empty(); }

void SubsettedElementSetBase::WrapperInterface::genericAdd(ModelElement const &element) {
    if (!element.get())
        return;
    checkEntryClass(element, view_.entryClass_());
    if (view_.predicate_ && !view_.predicate_(element))
        raise<messages::CannotAddIncompatibleObjectSubset>();
    view_.superset_->insert(element, CollisionResolution::Fail);
}

void SubsettedElementSetBase::WrapperInterface::genericRemove(ModelElement const &element) {
    if (!element.get())
        return;
    checkEntryClass(element, view_.entryClass_());
    if (view_.predicate_ && !view_.predicate_(element))
        return;
    view_.superset_->erase(element);
}

void SubsettedElementSetBase::WrapperInterface::genericClear() {
    for (ModelElement const &entry : view_.getAllValues())
        view_.superset_->erase(entry);
}

bool SubsettedElementSetBase::WrapperInterface::genericContains(ModelElement const &element) const {
    return view_.contains(element);
}

} // namespace kivra
