#pragma once
/// \file
/// Collections of element references, and the untyped views through which reflection,
/// parsers and serializers reach them.

#include <kivra/AbstractOwnedCollection.hpp>

#include <cstddef>
#include <vector>

namespace kivra {

class Value;

/// The untyped view of an element collection. Every operation that takes an element first
/// tests its class against the collection's entry class and raises
/// `CannotAddIncompatibleTypes` (element class, entry class) for another class; the typed
/// operations of the collections trust their entry type instead.
class GenericCollectionInterface {
public:
    virtual ~GenericCollectionInterface() = default;

    /// Entries held; proxies in a side table do not count.
    virtual std::size_t genericSize() const = 0;
    virtual bool genericEmpty() const { return genericSize() == 0; }
    /// Adds with association, as the collection's own add.
    virtual void genericAdd(ModelElement const &element) = 0;
    /// Adds so that the element stands at `index` where the collection has an order.
    virtual void genericEnsureAt(ModelElement const &element, std::size_t) { genericAdd(element); }
    /// Removes with association; an absent element is no error.
    virtual void genericRemove(ModelElement const &element) = 0;
    /// Removes everything with association.
    virtual void genericClear() = 0;
    /// Empties the container with no association.
    virtual void genericBasicClear() = 0;
    /// False for an empty handle and for an element of another class.
    virtual bool genericContains(ModelElement const &element) const = 0;

    virtual bool isSequenceInterface() const { return false; }
    virtual bool isMapInterface() const { return false; }
    virtual bool isMultimapInterface() const { return false; }
};

/// The untyped view of an ordered collection. A position past the last entry (past one
/// beyond it, to insert or ensure) raises `InvalidValue` and changes nothing.
class GenericSequenceInterface : public GenericCollectionInterface {
public:
    bool isSequenceInterface() const override { return true; }
    /// The entry at `index`, resolved in place when it is a proxy.
    virtual ModelElement genericAt(std::size_t index) = 0;
    virtual void genericInsert(ModelElement const &element, std::size_t index) = 0;
    /// The checked replacement of the entry at `index`; nothing for an empty handle.
    virtual void genericReplace(ModelElement const &element, std::size_t index) = 0;
    virtual void genericRemoveAt(std::size_t index) = 0;
    /// The index of the first entry that is `element`; -1 when absent or of another class.
    virtual int genericIndexOf(ModelElement const &element) = 0;
};

/// The untyped view of a collection keyed by a property of its entries, keys unique.
class GenericMapInterface : public GenericCollectionInterface {
public:
    bool isMapInterface() const override { return true; }
    /// The element under `key`; empty when none.
    virtual ModelElement genericAt(Value const &key) const = 0;
    virtual void genericInsert(ModelElement const &element, CollisionResolution collision) = 0;
    virtual meta::Type genericKeyType() const = 0;
    virtual std::vector<Value> genericKeys() const = 0;
};

/// The untyped view of a collection keyed by a property of its entries, keys repeated.
class GenericMultimapInterface : public GenericCollectionInterface {
public:
    bool isMultimapInterface() const override { return true; }
    virtual std::vector<ModelElement> genericFind(Value const &key) const = 0;
    virtual meta::Type genericKeyType() const = 0;
    virtual std::vector<Value> genericKeys() const = 0;
};

/// A collection of element handles. The public operations of its concrete classes keep
/// both ends of an association: an added element hears of its new partner (or container)
/// after it is stored, a removed one before it goes. The `basic` operations change this
/// container only; they are reached by the far end of an association through its
/// element (`ModelElement::Impl::_basicAdd` and its like).
class ReferenceCollection : public AbstractOwnedCollection {
public:
    ~ReferenceCollection() override;

    /// The other end of the association; empty when there is none.
    meta::Property getOpposite() const;
    meta::Property::Impl *getOppositeImpl() const noexcept { return opposite_; }
    /// True when the property holds its entries as children.
    bool isComposite() const noexcept;

    /// Adds through the generic view, testing the element's class.
    void genericAdd(ModelElement const &element) { genericInterface_->genericAdd(element); }
    void genericRemove(ModelElement const &element) { genericInterface_->genericRemove(element); }
    /// The entries, proxies that stay unresolved left out.
    virtual std::vector<ModelElement> getAllValues() const = 0;
    /// The entries with the proxies, which an unordered collection keeps behind the others.
    virtual std::vector<ModelElement> getAllValuesAndProxies() const { return getAllValues(); }
    GenericCollectionInterface *getGenericInterface() const noexcept { return genericInterface_; }

    /// A proxy was resolved to `element`: it takes the proxy's place (in an ordered
    /// collection the one at `index`, else `InvalidValue`, as for a dead `element`).
    virtual void replaceProxy(ModelElement const &element, std::size_t index) = 0;
    /// Tries to resolve every proxy held.
    virtual void resolveAll() = 0;

    /// Raises what `ModelElement::Impl::checkCompatibleModel` raises for `element` on this
    /// property; nothing for a free-standing collection.
    void checkCompatibleModel(ModelElement::Impl const *element) const;
    /// The element `proxy` stands for, or the proxy itself; may load models.
    ModelElement resolveProxy(ModelElement const &proxy) const;
    /// As `resolveProxy`, looking only at models already present.
    ModelElement peekResolveProxy(ModelElement const &proxy) const;

    /// Destroys every entry, emptying the collection before the first one goes.
    void destroyAllContents();

protected:
    friend class ModelElement::Impl;
    friend class SubsettedElementSetBase;
    friend class ElementSequenceBase;

    ReferenceCollection(ModelElement::Impl *owner, meta::Property::Impl *property, meta::Property::Impl *opposite,
                        GenericCollectionInterface *genericInterface)
        : AbstractOwnedCollection(owner, property), opposite_(opposite), genericInterface_(genericInterface) {}

    /// Resolves the proxies whose id names no other model.
    virtual void resolveLocal() = 0;
    virtual void basicAdd(ModelElement const &element) = 0;
    /// As `basicAdd`, for a live element of the owner's model in a change that the caller
    /// found to keep and tell nothing: a set then skips asking again.
    virtual void basicAddQuietly(ModelElement const &element) { basicAdd(element); }
    /// As `basicAdd`; collections that keep proxies aside send them there.
    virtual void basicAddWithProxy(ModelElement const &element) { basicAdd(element); }
    virtual void basicRemove(ModelElement const &element) = 0;
    virtual void basicReplaceProxy(ModelElement const &element, std::size_t index) = 0;
    virtual void basicAssign(std::vector<ModelElement> const &elements) = 0;
    /// Empties the container with no guard of its own; meant to run inside one.
    virtual void basicClear() = 0;
    virtual void basicCopyValues(ReferenceCollection const &other) = 0;
    /// Whether this collection holds `element` or a proxy of it; a proxy found is replaced
    /// by the element, which is no change of the model.
    virtual bool basicContainsProxyTo(ModelElement const &element) = 0;

    void copyContents(AbstractOwnedCollection const &other) override;
    /// Takes over the entries of `other`, a collection of the same class, as they are.
    virtual void assignFrom(ReferenceCollection const &other) = 0;

    /// The far end of a new entry hears of it: with an opposite through its `inverseAdd`,
    /// else, for a composite, by becoming a child of the owner.
    void associate(ModelElement::Impl *element);
    /// The far end of a leaving entry lets go: through its `inverseRemove`, or, for a
    /// composite, by becoming top level.
    void dissociate(ModelElement::Impl *element);
    /// True when entries have a far end to keep.
    bool hasFarEnd() const noexcept { return opposite_ || isComposite(); }
    /// `CannotAddIncompatibleTypes` unless `element`'s class is `entryClass` or derives
    /// from it; an empty `entryClass` takes everything.
    static void checkEntryClass(ModelElement const &element, meta::Class const &entryClass);
    static bool isEntryClass(ModelElement const &element, meta::Class const &entryClass);

    meta::Property::Impl *opposite_;
    /// A member of the concrete class, which points back here.
    GenericCollectionInterface *genericInterface_;
};

} // namespace kivra
