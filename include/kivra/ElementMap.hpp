#pragma once
/// \file
/// Element collections keyed by a property of their entries: maps, which hold one element
/// per key, and multimaps, which hold several; each sorted or hashed.

#include <kivra/UnorderedElementSet.hpp>
#include <kivra/services/Hashers.hpp>

#include <basalt/ustring.hpp>

#include <boost/uuid/uuid.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <map>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kivra {

/// The untyped body of every keyed element collection. The key of an entry is never
/// stored by the user: it is read from the element through the key function each time it
/// is needed, so an element whose key changes must leave and come back. Proxies, which
/// have no key, wait in the side table.
class ReferenceAssociativeBase : public ReferenceCollectionWithProxies {
public:
    ~ReferenceAssociativeBase() override;

    /// Entries held, proxies in the side table not counted.
    std::size_t size() const noexcept { return entryCount(); }
    /// True only when both the container and the side table are empty.
    bool empty() const override { return entryCount() == 0 && !hasUnresolved(); }
    meta::Type getCollectionType() const override;

    /// True when `element` itself stands under its key; another element with the same key
    /// is no match.
    bool contains(ModelElement const &element) const { return element.get() && holds(element.get()); }
    /// Removes with association; a proxy leaves the side table; an absent element is no error.
    void erase(ModelElement const &element);
    /// Removes `entries`, all held here, with association: every far end is told first.
    void eraseEntries(std::vector<ModelElement> const &entries);
    /// Removes every entry with association and empties the side table.
    void clear();
    /// Empties the entries and the side table with no association, as one change.
    void basicClearAll();

    /// The entries in the container's order, proxies left out.
    std::vector<ModelElement> getAllValues() const override;
    /// The entries, then the proxies of the side table.
    std::vector<ModelElement> getAllValuesAndProxies() const override;

    /// The type of the keys: that of the qualifying property, or for a collection without
    /// property the standard primitive type of the key.
    meta::Type getKeyType() const;

protected:
    using EntryClass = meta::Class const &(*)();

    ReferenceAssociativeBase(ModelElement::Impl *owner, meta::Property::Impl *property, meta::Property::Impl *opposite,
                             GenericCollectionInterface *view, EntryClass entryClass);

    // What the typed container gives; every key is read through the key function.
    virtual std::size_t entryCount() const noexcept = 0;
    /// The first element under `element`'s key; null when the key is free.
    virtual ModelElement::Impl *holderOfKeyOf(ModelElement::Impl const *element) const = 0;
    /// True when `element` itself stands under its key.
    virtual bool holds(ModelElement::Impl const *element) const = 0;
    /// Stores `element` under its key: in a map when the key is free, in a multimap behind
    /// the equal keys unless the element stands there. False when it did not go in.
    virtual bool place(ModelElement const &element) = 0;
    /// The entry under `element`'s key holds `element` from now on; its node stays.
    virtual void overwrite(ModelElement const &element) = 0;
    /// Takes `element` itself from under its key; false when it was not there.
    virtual bool unplace(ModelElement::Impl const *element) = 0;
    virtual void appendEntries(std::vector<ModelElement> &to) const = 0;
    virtual void clearEntries() noexcept = 0;
    /// The container becomes a copy of `other`'s, a collection of the same class.
    virtual void copyEntries(ReferenceAssociativeBase const &other) = 0;
    /// The elements under the key that `key` carries, in the container's order.
    virtual std::vector<ModelElement> entriesUnder(Value const &key) const = 0;
    /// Each distinct key once, in the container's order, as a value of `keyType`.
    virtual std::vector<Value> distinctKeys(meta::Type const &keyType) const = 0;
    virtual meta::Type nativeKeyType() const = 0;

    /// The first steps of every public insertion: false for an empty handle and for a
    /// proxy, which goes to the side table; raises for an element of another model.
    bool admit(ModelElement const &element);
    /// Stores a new element under its free key, then associates it.
    void addNew(ModelElement const &element);
    void checkEntryClass(ModelElement const &element) const;
    bool isEntry(ModelElement const &element) const;

    void basicAdd(ModelElement const &element) override;
    void basicRemove(ModelElement const &element) override;
    void basicAssign(std::vector<ModelElement> const &elements) override;
    void basicClear() override;
    void basicCopyValues(ReferenceCollection const &other) override;
    void assignFrom(ReferenceCollection const &other) override;
    bool resolveAdd(ModelElement const &element) override { return element.get() && place(element); }

    EntryClass entryClass_;
};

/// The untyped body of the maps: one element per key.
class ElementMapBody : public ReferenceAssociativeBase {
public:
    /// Adds with association. The element itself under its key changes nothing; a key held
    /// by another element raises `UniquenessConstraint` (`Fail`), changes nothing
    /// (`KeepExisting`), or the new element takes the entry over while the old one leaves
    /// (`Replace`). A proxy goes to the side table; an empty handle changes nothing.
    void insert(ModelElement const &element, CollisionResolution collision = CollisionResolution::Fail);

protected:
    ElementMapBody(ModelElement::Impl *owner, meta::Property::Impl *property, meta::Property::Impl *opposite,
                   EntryClass entryClass);

private:
    /// The generic view: a map's keys and the class test before each operation.
    class MyGenericInterface final : public GenericMapInterface {
    public:
        explicit MyGenericInterface(ElementMapBody &map) noexcept : map_(map) {}
        std::size_t genericSize() const override;
        bool genericEmpty() const override;
        void genericAdd(ModelElement const &element) override;
        void genericRemove(ModelElement const &element) override;
        void genericClear() override;
        void genericBasicClear() override;
        bool genericContains(ModelElement const &element) const override;
        ModelElement genericAt(Value const &key) const override;
        void genericInsert(ModelElement const &element, CollisionResolution collision) override;
        meta::Type genericKeyType() const override;
        std::vector<Value> genericKeys() const override;

    private:
        ElementMapBody &map_;
    };

    MyGenericInterface view_{*this};
};

/// The untyped body of the multimaps: several elements under a key, in the order they came.
class ElementMultimapBody : public ReferenceAssociativeBase {
public:
    /// Adds with association behind the elements of the same key; the element itself under
    /// its key is not added twice. A proxy goes to the side table.
    void insert(ModelElement const &element);

protected:
    ElementMultimapBody(ModelElement::Impl *owner, meta::Property::Impl *property, meta::Property::Impl *opposite,
                        EntryClass entryClass);

private:
    class MyGenericInterface final : public GenericMultimapInterface {
    public:
        explicit MyGenericInterface(ElementMultimapBody &map) noexcept : map_(map) {}
        std::size_t genericSize() const override;
        bool genericEmpty() const override;
        void genericAdd(ModelElement const &element) override;
        void genericRemove(ModelElement const &element) override;
        void genericClear() override;
        void genericBasicClear() override;
        bool genericContains(ModelElement const &element) const override;
        std::vector<ModelElement> genericFind(Value const &key) const override;
        meta::Type genericKeyType() const override;
        std::vector<Value> genericKeys() const override;

    private:
        ElementMultimapBody &map_;
    };

    MyGenericInterface view_{*this};
};

namespace internal {

/// An iterator over a keyed container that gives its entries as `V` and their keys by `key()`.
template <class V, class Base> class KeyedIterator {
public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = V;
    using difference_type = std::ptrdiff_t;
    using reference = V;
    using pointer = void;

    KeyedIterator() = default;
    explicit KeyedIterator(Base base) : base_(base) {}
    static V as(ModelElement const &element) {
        if constexpr (std::is_same_v<V, ModelElement>)
            return element;
        else
            return V::fromImpl(static_cast<typename V::Impl *>(element.get()));
    }
    V operator*() const { return as(base_->second); }
    typename V::Impl *operator->() const { return (**this).get(); }
    auto const &key() const { return base_->first; }
    KeyedIterator &operator++() { return ++base_, *this; }
    KeyedIterator operator++(int) { return KeyedIterator(base_++); }
    friend bool operator==(KeyedIterator const &a, KeyedIterator const &b) { return a.base_ == b.base_; }
    Base base() const { return base_; }

private:
    Base base_;
};

} // namespace internal

/// The keyed container `C` (keys `K`) below a map or multimap body: the few lines that
/// need to know the key. Every step of the protocol is the body's, and every instance is
/// built once in the library for the key types of the metamodel.
template <class K, class C, class Body> class ReferenceAssociativeContainer : public Body {
public:
    using key_type = K;
    /// Reads the key of an element: a member accessor in generated classes.
    using KeyFunction = std::function<K(ModelElement::Impl const &)>;
    using Container = C;

    /// The first element under `key`; an empty handle when none.
    ModelElement at(K const &key) const;
    std::size_t count(K const &key) const { return entries_.count(key); }
    C const &toSTLCollection() const noexcept { return entries_; }
    KeyFunction const &getKeyFunction() const noexcept { return keyFunction_; }

protected:
    ReferenceAssociativeContainer(KeyFunction key, ModelElement::Impl *owner, meta::Property::Impl *property,
                                  meta::Property::Impl *opposite, typename Body::EntryClass entryClass)
        : Body(owner, property, opposite, entryClass), keyFunction_(std::move(key)) {}

    /// The entry that holds `element` itself, or the end of the container.
    typename C::const_iterator findEntry(ModelElement::Impl const *element) const;

    std::size_t entryCount() const noexcept override { return entries_.size(); }
    ModelElement::Impl *holderOfKeyOf(ModelElement::Impl const *element) const override;
    bool holds(ModelElement::Impl const *element) const override;
    bool place(ModelElement const &element) override;
    void overwrite(ModelElement const &element) override;
    bool unplace(ModelElement::Impl const *element) override;
    void appendEntries(std::vector<ModelElement> &to) const override;
    void clearEntries() noexcept override { entries_.clear(); }
    void copyEntries(ReferenceAssociativeBase const &other) override;
    std::vector<ModelElement> entriesUnder(Value const &key) const override;
    std::vector<Value> distinctKeys(meta::Type const &keyType) const override;
    meta::Type nativeKeyType() const override;

private:
    /// Where `element` stands under `key` (true), or else where a new entry of the key
    /// goes: behind the equal keys, or the end when there are none (false).
    std::pair<typename C::iterator, bool> locate(K const &key, ModelElement::Impl const *element) const;

    KeyFunction keyFunction_;
    C entries_;
};

/// The typed face of a keyed collection: entries as handles of `V`.
template <class K, class V, class C, class Body>
class TypedAssociativeContainer : public ReferenceAssociativeContainer<K, C, Body> {
    using Base = ReferenceAssociativeContainer<K, C, Body>;

public:
    using value_type = V;
    using iterator = internal::KeyedIterator<V, typename C::const_iterator>;
    using const_iterator = iterator;

    iterator begin() const { return iterator(this->toSTLCollection().begin()); }
    iterator end() const { return iterator(this->toSTLCollection().end()); }
    /// The entry that holds `element` itself, or `end()`; another element under the same
    /// key is no match.
    iterator find(V const &element) const { return element.get() ? iterator(this->findEntry(element.get())) : end(); }
    V at(K const &key) const { return internal::KeyedIterator<V, ModelElement const *>::as(Base::at(key)); }

    using Body::erase;
    /// Removes the entry at `position` with association; gives the entry behind it.
    iterator erase(iterator position) {
        ModelElement const element = position.base()->second;
        ++position;
        Body::erase(element);
        return position;
    }
    /// Removes [first, last) with association: every far end is told first.
    void erase(iterator first, iterator last) {
        std::vector<ModelElement> leaving;
        for (; first != last; ++first)
            leaving.push_back(first.base()->second);
        Body::eraseEntries(leaving);
    }

protected:
    TypedAssociativeContainer(typename Base::KeyFunction key, ModelElement::Impl *owner,
                              meta::Property::Impl *property, meta::Property::Impl *opposite)
        : Base(std::move(key), owner, property, opposite, &V::metaClass) {}
};

/// The collection of a property qualified by a unique key of its entries, `C` a map from
/// `K` to handles of `V`.
template <class K, class V, class C>
class ElementMapBase : public TypedAssociativeContainer<K, V, C, ElementMapBody> {
    using Base = TypedAssociativeContainer<K, V, C, ElementMapBody>;

public:
    using Base::Base;
    using ElementMapBody::insert;
    /// True when `key` is held.
    bool containsKey(K const &key) const { return this->toSTLCollection().contains(key); }
};

/// The collection of a property qualified by a key that entries may share.
template <class K, class V, class C>
class ElementMultimapBase : public TypedAssociativeContainer<K, V, C, ElementMultimapBody> {
    using Base = TypedAssociativeContainer<K, V, C, ElementMultimapBody>;

public:
    using Base::Base;
    using ElementMultimapBody::insert;
    /// The elements under `key`, in the order they came.
    std::vector<V> find(K const &key) const {
        std::vector<V> found;
        auto [first, last] = this->toSTLCollection().equal_range(key);
        for (; first != last; ++first)
            found.push_back(*typename Base::iterator(first));
        return found;
    }
    using Base::find;
};

/// A map sorted by key.
template <class K, class V> class ElementMap final : public ElementMapBase<K, V, std::map<K, ModelElement>> {
    using Base = ElementMapBase<K, V, std::map<K, ModelElement>>;

public:
    /// The collection of `owner`'s `property`; made by the owner on first use.
    ElementMap(typename Base::KeyFunction key, ModelElement::CollectionPrivateTag const &, ModelElement::Impl *owner,
               meta::Property::Impl *property, meta::Property::Impl *opposite)
        : Base(std::move(key), owner, property, opposite) {}
    /// A free-standing map.
    explicit ElementMap(typename Base::KeyFunction key = {}) : Base(std::move(key), nullptr, nullptr, nullptr) {}
};

/// A map hashed by key; its order is not promised.
template <class K, class V>
class UnorderedElementMap final
    : public ElementMapBase<K, V, std::unordered_map<K, ModelElement, services::hashers::KeyHasher<K>>> {
    using Base = ElementMapBase<K, V, std::unordered_map<K, ModelElement, services::hashers::KeyHasher<K>>>;

public:
    UnorderedElementMap(typename Base::KeyFunction key, ModelElement::CollectionPrivateTag const &,
                        ModelElement::Impl *owner, meta::Property::Impl *property, meta::Property::Impl *opposite)
        : Base(std::move(key), owner, property, opposite) {}
    explicit UnorderedElementMap(typename Base::KeyFunction key = {})
        : Base(std::move(key), nullptr, nullptr, nullptr) {}
};

/// A multimap sorted by key; equal keys keep the order in which their elements came.
template <class K, class V>
class ElementMultimap final : public ElementMultimapBase<K, V, std::multimap<K, ModelElement>> {
    using Base = ElementMultimapBase<K, V, std::multimap<K, ModelElement>>;

public:
    ElementMultimap(typename Base::KeyFunction key, ModelElement::CollectionPrivateTag const &,
                    ModelElement::Impl *owner, meta::Property::Impl *property, meta::Property::Impl *opposite)
        : Base(std::move(key), owner, property, opposite) {}
    explicit ElementMultimap(typename Base::KeyFunction key = {}) : Base(std::move(key), nullptr, nullptr, nullptr) {}
};

/// A multimap hashed by key.
template <class K, class V>
class UnorderedElementMultimap final
    : public ElementMultimapBase<K, V, std::unordered_multimap<K, ModelElement, services::hashers::KeyHasher<K>>> {
    using Base = ElementMultimapBase<K, V, std::unordered_multimap<K, ModelElement, services::hashers::KeyHasher<K>>>;

public:
    UnorderedElementMultimap(typename Base::KeyFunction key, ModelElement::CollectionPrivateTag const &,
                             ModelElement::Impl *owner, meta::Property::Impl *property, meta::Property::Impl *opposite)
        : Base(std::move(key), owner, property, opposite) {}
    explicit UnorderedElementMultimap(typename Base::KeyFunction key = {})
        : Base(std::move(key), nullptr, nullptr, nullptr) {}
};

// The instances of every key type, built in the library.
#define KIVRA_KEYED_FORMS(K)                                                                                          \
    extern template class ReferenceAssociativeContainer<K, std::map<K, ModelElement>, ElementMapBody>;                \
    extern template class ReferenceAssociativeContainer<                                                               \
        K, std::unordered_map<K, ModelElement, services::hashers::KeyHasher<K>>, ElementMapBody>;                      \
    extern template class ReferenceAssociativeContainer<K, std::multimap<K, ModelElement>, ElementMultimapBody>;      \
    extern template class ReferenceAssociativeContainer<                                                               \
        K, std::unordered_multimap<K, ModelElement, services::hashers::KeyHasher<K>>, ElementMultimapBody>;
#include <kivra/detail/KeyTypes.def>

} // namespace kivra
