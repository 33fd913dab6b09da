#include <kivra/reflection/ReflectiveCollections.hpp>

#include <kivra/Messages.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Class.hpp>

namespace kivra::reflection {

namespace {

void checkEntryOf(ModelElement const &element, meta::Class const &entryClass) {
    // A proxy's class is not known until it resolves; it is tested then.
    if (!element.get() || element->isProxy() || !entryClass)
        return;
    meta::Class const &cls = element->getMetaClass();
    if (!cls || !cls->isA(entryClass))
        raise<messages::CannotAddIncompatibleTypes>(cls ? cls->getQualifiedName() : basalt::ustring(),
                                                    entryClass->getQualifiedName());
}

// The generic views of the base collections test entries against the root class only;
// these put the run-time class first and leave the rest to the base's view.
template <class Interface> class CheckingBase : public Interface {
public:
    CheckingBase(Interface &inner, meta::Class const &cls) noexcept : inner_(inner), cls_(cls) {}
    std::size_t genericSize() const override { return inner_.genericSize(); }
    bool genericEmpty() const override { return inner_.genericEmpty(); }
    void genericAdd(ModelElement const &element) override {
        checkEntryOf(element, cls_);
        inner_.genericAdd(element);
    }
    void genericEnsureAt(ModelElement const &element, std::size_t index) override {
        checkEntryOf(element, cls_);
        inner_.genericEnsureAt(element, index);
    }
    void genericRemove(ModelElement const &element) override { inner_.genericRemove(element); }
    void genericClear() override { inner_.genericClear(); }
    void genericBasicClear() override { inner_.genericBasicClear(); }
    bool genericContains(ModelElement const &element) const override { return inner_.genericContains(element); }

protected:
    Interface &inner_;
    meta::Class const &cls_;
};

} // namespace

ReflectiveEntryClass::ReflectiveEntryClass(meta::Class const &cls) : entryClass_(cls) {}

ReflectiveEntryClass::~ReflectiveEntryClass() = default;

void ReflectiveEntryClass::checkEntry(ModelElement const &element) const { checkEntryOf(element, entryClass_); }

class ReflectiveElementSequence::CheckingView final : public CheckingBase<GenericSequenceInterface> {
public:
    using CheckingBase::CheckingBase;
    ModelElement genericAt(std::size_t index) override { return inner_.genericAt(index); }
    void genericInsert(ModelElement const &element, std::size_t index) override {
        checkEntryOf(element, cls_);
        inner_.genericInsert(element, index);
    }
    void genericReplace(ModelElement const &element, std::size_t index) override {
        checkEntryOf(element, cls_);
        inner_.genericReplace(element, index);
    }
    void genericRemoveAt(std::size_t index) override { inner_.genericRemoveAt(index); }
    int genericIndexOf(ModelElement const &element) override { return inner_.genericIndexOf(element); }
};

ReflectiveElementSequence::ReflectiveElementSequence(ModelElement::Impl *owner, meta::Class const &cls, bool unique,
                                                     meta::Property::Impl *property, meta::Property::Impl *opposite)
    : ElementSequenceBase(owner, unique, property, opposite, &ModelElement::metaClass), ReflectiveEntryClass(cls),
      checking_(std::make_unique<CheckingView>(static_cast<GenericSequenceInterface &>(*genericInterface_),
                                               getEntryClass())) {
    genericInterface_ = checking_.get();
}

ReflectiveElementSequence::~ReflectiveElementSequence() = default;

void ReflectiveElementSequence::basicAdd(ModelElement const &element) {
    checkEntry(element);
    ElementSequenceBase::basicAdd(element);
}

void ReflectiveElementSequence::replaceElement(std::size_t index, ModelElement const &element) {
    checkEntry(element);
    ElementSequenceBase::replaceElement(index, element);
}

class ReflectiveUnorderedElementSet::CheckingView final : public CheckingBase<GenericCollectionInterface> {
public:
    using CheckingBase::CheckingBase;
};

ReflectiveUnorderedElementSet::ReflectiveUnorderedElementSet(ModelElement::Impl *owner, meta::Class const &cls,
                                                             meta::Property::Impl *property,
                                                             meta::Property::Impl *opposite)
    : ElementSetBase(owner, property, opposite, &ModelElement::metaClass), ReflectiveEntryClass(cls),
      checking_(std::make_unique<CheckingView>(*genericInterface_, getEntryClass())) {
    genericInterface_ = checking_.get();
}

ReflectiveUnorderedElementSet::~ReflectiveUnorderedElementSet() = default;

void ReflectiveUnorderedElementSet::basicAdd(ModelElement const &element) {
    checkEntry(element);
    ElementSetBase::basicAdd(element);
}

} // namespace kivra::reflection
