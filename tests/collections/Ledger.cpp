#include "Ledger.hpp"

#include <kivra/UuidLiteral.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/AbstractMetaPackage.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/DataType.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/Package.hpp>
#include <kivra/meta/PrimitiveType.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/detail/Metaclasses.hpp>

#include <array>

namespace kivra::test {

namespace {

using namespace kivra::meta;

/// The description of `Ledger`, entered the way a generated package enters its classes.
class LedgerPackage : public AbstractMetaPackage {
public:
    static LedgerPackage &getInstance() {
        static auto *const instance = new LedgerPackage();
        return *instance;
    }
    Class ledger;
    std::array<Property, Ledger::Impl::propertyCount + 1> properties;

private:
    LedgerPackage() {
        begin();
        createPackage(u"ledgers", u"http://schema.kivra.org/kivra/ledgers/1");
        ledger = createClass(u"Ledger", "ledgers.Ledger", false, "5f0c1a52-8d7e-3b41-9c2a-7e6d5b4a3c21");
        // The data type of imported packages, until the metamodel's own description makes it.
        DataType versionInfo = VersionInfo::dataType();
        if (!versionInfo) {
            versionInfo = DataType::create(model(), parseUuidLiteral("c796e984-6630-3cfb-8a81-a092baf6dced"));
            versionInfo->setName(u"VersionInfo");
        }
        struct Row {
            char16_t const *name;
            ValueFlags shape;
            Type type;
            char const *uuid;
        };
        Row const rows[] = {
            {u"numbers", ValueFlags::Sequence, registry().getPrimitiveType(u"Integer"), "0b7e4c1d-2a3f-3e58-9d6c-1f2e3d4c5b6a"},
            {u"ranks", ValueFlags::Sequence, registry().getPrimitiveType(u"Integer"), "1c8f5d2e-3b4a-3f69-8e7d-2a3f4e5d6c7b"},
            {u"tags", ValueFlags::SortedSet, registry().getPrimitiveType(u"String"), "2d9a6e3f-4c5b-3a7a-9f8e-3b4a5f6e7d8c"},
            {u"codes", ValueFlags::HashSet, registry().getPrimitiveType(u"UUID"), "3eab7f4a-5d6c-3b8b-8a9f-4c5b6a7f8e9d"},
            {u"labels", ValueFlags::Single, registry().getPrimitiveType(u"StringToStringMap"), "4fbc8a5b-6e7d-3c9c-9bae-5d6c7b8a9fae"},
            {u"imports", ValueFlags::Map, versionInfo, "5acd9b6c-7f8e-3dad-8cbf-6e7d8c9bafbf"},
        };
        std::uint64_t index = 1;
        for (Row const &row : rows) {
            Property const property = createProperty(row.name, row.shape, false, row.uuid);
            setPropertyIndex(property, int(index));
            meta::detail::declareOwningClass(property, ledger);
            property->setType(row.type);
            properties[index++] = property;
        }
        properties[Ledger::Impl::numbersIndex]->setIsUnique(false);
        finish();
        meta::detail::metaclassSlot(parseUuidLiteral("5f0c1a52-8d7e-3b41-9c2a-7e6d5b4a3c21")) = ledger;
    }
};

std::unique_ptr<AbstractOwnedCollection> cloneOf(AbstractOwnedCollection const *source) {
    if (!source)
        return nullptr;
    if (auto const *sequence = dynamic_cast<PrimitiveSequence<std::int32_t> const *>(source))
        return sequence->cloneFreeStanding();
    if (auto const *set = dynamic_cast<PrimitiveSet<basalt::ustring> const *>(source))
        return set->cloneFreeStanding();
    if (auto const *set = dynamic_cast<UnorderedPrimitiveSet<boost::uuids::uuid> const *>(source))
        return set->cloneFreeStanding();
    if (auto const *map = dynamic_cast<StringToStringMap const *>(source))
        return map->cloneFreeStanding();
    return static_cast<PrimitiveMap<basalt::ustring, VersionInfo> const &>(*source).cloneFreeStanding();
}

} // namespace

meta::Class const &Ledger::metaClass() { return LedgerPackage::getInstance().ledger; }

Ledger Ledger::create(Model const &model) {
    Ledger element(new (model) Impl(model, {}), /*addReference=*/true);
    element->notifyCreated();
    return element;
}

meta::Property const &Ledger::Impl::property(std::uint64_t index) {
    static meta::Property const none;
    return index >= 1 && index <= propertyCount ? LedgerPackage::getInstance().properties[index] : none;
}

AbstractOwnedCollection &Ledger::Impl::slot(std::uint64_t index) const {
    std::unique_ptr<AbstractOwnedCollection> &slot = slots_[index];
    if (slot)
        return *slot;
    auto *const self = const_cast<Impl *>(this);
    meta::Property const &described = property(index);
    if (index == labelsIndex)
        slot = std::make_unique<StringToStringMap>(_privateTag(), self, described.get());
    else if (index == importsIndex)
        slot = std::make_unique<PrimitiveMap<basalt::ustring, meta::VersionInfo>>(
            [](meta::VersionInfo const &info) { return info.getFamily(); }, _privateTag(), self, described.get());
    else
        slot.reset(MetaRegistry::getInstance()->instantiateDynamicCollection(ModelElement::fromImpl(self), described));
    return *slot;
}

Value Ledger::Impl::getPropertyValue(meta::Property const &property, ReflectionPrivateTag const &tag) const {
    std::int32_t const index = property ? property->getPropertyIndex() : 0;
    if (index < 1 || std::uint64_t(index) > propertyCount || property != Impl::property(std::uint64_t(index)))
        return ModelElement::Impl::getPropertyValue(property, tag);
    if (std::uint64_t(index) == labelsIndex)
        return static_cast<StringToStringMap &>(slot(labelsIndex)).toValue();
    return Value(static_cast<AbstractPrimitiveCollection &>(slot(std::uint64_t(index))), property);
}

ModelElement::Impl::Changes *Ledger::Impl::createChanges() const {
    return new Changes(getUuid(), getModelImpl(), getMetaClass(), propertyCount);
}

ModelElement::Impl::Storage *Ledger::Impl::createStorage() const {
    return new Storage(getUuid(), getModelImpl(), getMetaClass(), propertyCount + 1);
}

void Ledger::Impl::copyValue(ModelElement::Impl::Storage *storage, std::uint64_t index) const {
    if (index < 1 || index > propertyCount)
        return ModelElement::Impl::copyValue(storage, index);
    static_cast<Storage *>(storage)->old_[index] = cloneOf(slots_[index].get());
}

void Ledger::Impl::copyStateFromStorage(ModelElement::Impl::Storage *storage) {
    auto *const own = static_cast<Storage *>(storage);
    for (std::uint64_t index = 1; index <= propertyCount; ++index) {
        if (!own->isChanged(index))
            continue;
        if (index == labelsIndex)
            labels().restoreFrom(static_cast<StringToStringMap const *>(own->old_[index].get()));
        else
            static_cast<AbstractPrimitiveCollection &>(slot(index))
                .restoreFrom(static_cast<AbstractPrimitiveCollection const *>(own->old_[index].get()));
    }
    ModelElement::Impl::copyStateFromStorage(storage);
}

Value Ledger::Impl::Storage::getOldValue(meta::Property const &property, ReflectionPrivateTag const &tag) const {
    std::int32_t const index = property ? property->getPropertyIndex() : 0;
    if (index < 1 || std::uint64_t(index) > propertyCount || std::uint64_t(index) == labelsIndex ||
        !isChanged(std::uint64_t(index)) || !old_[index])
        return ModelElement::Impl::Storage::getOldValue(property, tag);
    return Value(static_cast<AbstractPrimitiveCollection &>(*old_[index]), property);
}

} // namespace kivra::test
