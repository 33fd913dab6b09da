#pragma once
// A hand-written class in the generated pattern whose properties are primitive
// collections: numbers (a list), ranks (a unique list), tags (a sorted set), codes (a hashed
// set of UUIDs), labels (a map of texts) and imports (data type entries keyed by family).

#include <kivra/ChangeRecords.hpp>
#include <kivra/Handles.hpp>
#include <kivra/ModelElement.hpp>
#include <kivra/PrimitiveCollection.hpp>
#include <kivra/StringToStringMap.hpp>
#include <kivra/meta/Handles.hpp>

#include <memory>

namespace kivra::test {

class Ledger : public ModelElement {
public:
    class Impl;
    Ledger() noexcept = default;
    Impl *get() const noexcept;
    Impl *operator->() const noexcept { return get(); }
    static meta::Class const &metaClass();
    static Ledger create(Model const &model);

protected:
    Ledger(Impl *impl, bool addReference) noexcept;
};

class Ledger::Impl : public ModelElement::Impl {
public:
    static constexpr std::uint64_t numbersIndex = 1;
    static constexpr std::uint64_t ranksIndex = 2;
    static constexpr std::uint64_t tagsIndex = 3;
    static constexpr std::uint64_t codesIndex = 4;
    static constexpr std::uint64_t labelsIndex = 5;
    static constexpr std::uint64_t importsIndex = 6;
    static constexpr std::uint64_t propertyCount = 6;

    static meta::Property const &property(std::uint64_t index);

    meta::Class const &getMetaClass() const override { return Ledger::metaClass(); }

    PrimitiveSequence<std::int32_t> &numbers() { return static_cast<PrimitiveSequence<std::int32_t> &>(slot(numbersIndex)); }
    PrimitiveSequence<std::int32_t> &ranks() { return static_cast<PrimitiveSequence<std::int32_t> &>(slot(ranksIndex)); }
    PrimitiveSet<basalt::ustring> &tags() { return static_cast<PrimitiveSet<basalt::ustring> &>(slot(tagsIndex)); }
    UnorderedPrimitiveSet<boost::uuids::uuid> &codes() {
        return static_cast<UnorderedPrimitiveSet<boost::uuids::uuid> &>(slot(codesIndex));
    }
    StringToStringMap &labels() { return static_cast<StringToStringMap &>(slot(labelsIndex)); }
    PrimitiveMap<basalt::ustring, meta::VersionInfo> &imports() {
        return static_cast<PrimitiveMap<basalt::ustring, meta::VersionInfo> &>(slot(importsIndex));
    }
    /// The collection of a multi-valued property, made on first use.
    AbstractOwnedCollection &slot(std::uint64_t index) const;

    Value getPropertyValue(meta::Property const &property, ReflectionPrivateTag const &tag) const override;
    meta::Property getPropertyByIndex(std::uint64_t index) const override { return property(index); }

    class Storage;
    Changes *createChanges() const override;
    ModelElement::Impl::Storage *createStorage() const override;
    void copyValue(ModelElement::Impl::Storage *storage, std::uint64_t index) const override;
    void copyStateFromStorage(ModelElement::Impl::Storage *storage) override;

protected:
    friend class Ledger;
    Impl(Model const &model, boost::uuids::uuid const &uuid) : ModelElement::Impl(model, uuid) {}
    void doDestroy(bool, bool) override {}

private:
    mutable std::unique_ptr<AbstractOwnedCollection> slots_[propertyCount + 1];
};

class Ledger::Impl::Storage : public ModelElement::Impl::Storage {
public:
    using ModelElement::Impl::Storage::Storage;
    Value getOldValue(meta::Property const &property, ReflectionPrivateTag const &tag) const override;

private:
    friend class Ledger::Impl;
    std::unique_ptr<AbstractOwnedCollection> old_[propertyCount + 1];
};

inline Ledger::Ledger(Impl *impl, bool addReference) noexcept : ModelElement(impl, addReference) {}
inline Ledger::Impl *Ledger::get() const noexcept { return static_cast<Impl *>(ModelElement::get()); }

} // namespace kivra::test
