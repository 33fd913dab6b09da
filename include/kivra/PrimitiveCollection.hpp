#pragma once
/// \file
/// The typed primitive collections: sequences, sorted and hashed sets, and the map of data
/// type objects keyed by a text read from each.

#include <kivra/AbstractPrimitiveCollection.hpp>
#include <kivra/Value.hpp>
#include <kivra/detail/FlatHashSet.hpp>
#include <kivra/meta/VersionInfo.hpp>
#include <kivra/services/Hashers.hpp>

#include <boost/container/flat_map.hpp>
#include <boost/container/flat_set.hpp>
#include <boost/date_time/posix_time/ptime.hpp>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

namespace kivra {

/// The entries of a collection `C` of `V` values, kept in `container`. Instances exist for
/// the native types of the standard primitive types and for `meta::VersionInfo`; each
/// mutation follows the rules of `AbstractPrimitiveCollection`.
template <class V, class C> class PrimitiveCollection : public AbstractPrimitiveCollection {
public:
    using value_type = V;
    using container_type = C;
    using const_iterator = typename C::const_iterator;

    /// The metamodel's type of `V`: its standard primitive type, or the data type
    /// `VersionInfo`, empty until the metamodel describes it.
    meta::Type getCollectionType() const override;
    bool empty() const override { return container.empty(); }
    void clear() override;
    std::uint64_t size() const override { return container.size(); }
    std::vector<Value> getAllValues() const override;

    const_iterator begin() const noexcept { return container.begin(); }
    const_iterator end() const noexcept { return container.end(); }
    /// The container, for reads.
    C const &toSTLCollection() const noexcept { return container; }

protected:
    PrimitiveCollection(ModelElement::Impl *owner, meta::Property::Impl *property)
        : AbstractPrimitiveCollection(owner, property) {}
    /// Takes the other's entries, in the frame of one change.
    void copyContents(AbstractOwnedCollection const &other) override;

    C container;
};

/// The collection of an ordered property: a vector in the order of the adds. A unique
/// sequence turns away, without an error, an entry it holds already; that test is a scan.
///
/// Example:
/// \code
///   PrimitiveSequence<int> &sizes = shoe->getSizesMutable(); // generated accessor
///   sizes.push_back(42);
///   sizes.insert(0, 38);
/// \endcode
template <class V> class PrimitiveSequence final : public PrimitiveCollection<V, std::vector<V>> {
public:
    class SequenceInterface;

    /// The collection of `owner`'s `property`, made by the owner on first use.
    PrimitiveSequence(ModelElement::CollectionPrivateTag const &, ModelElement::Impl *owner,
                      meta::Property::Impl *property, bool unique);
    /// A free-standing sequence: no transaction, no record.
    explicit PrimitiveSequence(bool unique = false);
    ~PrimitiveSequence() override;

    bool isUnique() const noexcept { return unique; }
    typename std::vector<V>::const_reference operator[](std::size_t index) const noexcept {
        return this->container[index];
    }
    /// Whether an entry equals `value`; a scan.
    bool contains(V const &value) const;
    /// The index of the first entry equal to `value`, or -1.
    std::int64_t indexOf(V const &value) const;

    /// Appends `value`; a unique sequence that holds it changes nothing.
    void push_back(V const &value);
    /// Inserts before `index` (at most `size()`), with the rule of `push_back`; a bad
    /// index raises `InvalidValue`.
    void insert(std::size_t index, V const &value);
    /// Replaces the entry at `index`; a unique sequence that holds `value` anywhere changes
    /// nothing. A bad index raises `InvalidValue`.
    void replace(std::size_t index, V const &value);
    /// Removes the entry at `index`; a bad index raises `InvalidValue`.
    void erase(std::size_t index);
    /// Removes the first entry equal to `value`; an absent one is no error.
    void remove(V const &value);
    /// Replaces the contents by `values`; a unique sequence keeps the first of repeated
    /// entries, in list order.
    void assign(std::vector<V> const &values);
    void assign(std::initializer_list<V> values) { assign(std::vector<V>(values)); }

    void genericAdd(Value const &value) override;
    void genericRemove(Value const &value) override;
    GenericPrimitiveInterface *getGenericInterface() const override;

    /// A free-standing copy of the entries and the uniqueness, as a change record keeps it.
    std::unique_ptr<PrimitiveSequence> cloneFreeStanding() const;

protected:
    AbstractPrimitiveCollection::Kind getKind() const override { return AbstractPrimitiveCollection::Kind::Sequence; }

private:
    /// Made on first use: typed code never pays for it.
    mutable std::unique_ptr<SequenceInterface> genericInterface;
    bool unique;
};

/// The untyped indexed view of a `PrimitiveSequence`, owned by it.
template <class V> class PrimitiveSequence<V>::SequenceInterface final : public GenericPrimitiveSequenceInterface {
public:
    explicit SequenceInterface(PrimitiveSequence &sequence) noexcept : sequence_(sequence) {}
    Value genericAt(std::size_t index) const override;
    void genericInsert(Value const &value, std::size_t index) override;
    void genericReplace(Value const &value, std::size_t index) override;
    void genericRemoveAt(std::size_t index) override;
    std::int64_t genericIndexOf(Value const &value) const override;

private:
    PrimitiveSequence &sequence_;
};

/// The collection of an unordered property: each value at most once. Adds and removes
/// always count as a change of the property, also when nothing changes.
template <class V, class C> class PrimitiveSetBase : public PrimitiveCollection<V, C> {
public:
    bool contains(V const &value) const { return this->container.count(value) != 0; }
    /// Adds `value`; one that is there stays.
    void insert(V const &value);
    /// Removes `value` when it is there.
    void erase(V const &value);

    void genericAdd(Value const &value) override;
    void genericRemove(Value const &value) override;

protected:
    PrimitiveSetBase(ModelElement::Impl *owner, meta::Property::Impl *property)
        : PrimitiveCollection<V, C>(owner, property) {}
    AbstractPrimitiveCollection::Kind getKind() const override { return AbstractPrimitiveCollection::Kind::Set; }
};

/// The set of an unordered property that is not hashed: entries kept sorted in one array.
template <class V> class PrimitiveSet final : public PrimitiveSetBase<V, boost::container::flat_set<V>> {
public:
    PrimitiveSet(ModelElement::CollectionPrivateTag const &, ModelElement::Impl *owner, meta::Property::Impl *property)
        : PrimitiveSetBase<V, boost::container::flat_set<V>>(owner, property) {}
    /// A free-standing set.
    PrimitiveSet() : PrimitiveSetBase<V, boost::container::flat_set<V>>(nullptr, nullptr) {}
    std::unique_ptr<PrimitiveSet> cloneFreeStanding() const;
};

/// The set of a hashed unordered property: one open-addressing array hashed by
/// `services::hashers::KivraHasher`, no node per entry.
template <class V>
class UnorderedPrimitiveSet final : public PrimitiveSetBase<V, detail::FlatHashSet<V, services::hashers::KivraHasher<V>>> {
    using Base = PrimitiveSetBase<V, detail::FlatHashSet<V, services::hashers::KivraHasher<V>>>;

public:
    UnorderedPrimitiveSet(ModelElement::CollectionPrivateTag const &, ModelElement::Impl *owner,
                          meta::Property::Impl *property)
        : Base(owner, property) {}
    /// A free-standing set.
    UnorderedPrimitiveSet() : Base(nullptr, nullptr) {}
    std::unique_ptr<UnorderedPrimitiveSet> cloneFreeStanding() const;
};

/// Entries `V` kept under a key `K` that `keyFunction` reads from each, one entry per key.
template <class K, class V, class C> class PrimitiveAssociativeContainer : public PrimitiveCollection<V, C> {
public:
    class Associative;
    using KeyFunction = std::function<K(V const &)>;

    ~PrimitiveAssociativeContainer() override;

    /// The entry under `key`, or null.
    V const *find(K const &key) const;
    /// Adds `entry` unless its key is taken; an entry with the key and another value stays.
    void add(V const &entry) { insert(entry, CollisionResolution::KeepExisting); }
    /// Adds `entry`, replacing the one its key held.
    void put(V const &entry) { insert(entry, CollisionResolution::Replace); }
    /// Removes the entry equal to `entry`; one with the same key and another value stays.
    void remove(V const &entry);

    void genericAdd(Value const &value) override;
    void genericRemove(Value const &value) override;
    GenericPrimitiveInterface *getGenericInterface() const override;

protected:
    PrimitiveAssociativeContainer(ModelElement::Impl *owner, meta::Property::Impl *property, KeyFunction key);
    AbstractPrimitiveCollection::Kind getKind() const override {
        return AbstractPrimitiveCollection::Kind::Associative;
    }
    /// Stores `entry` under its key: nothing when an equal entry is there; for a key that
    /// holds another value, `Fail` raises `UniquenessConstraint` (no frame opened),
    /// `KeepExisting` changes nothing and `Replace` puts `entry` in its place.
    void insert(V const &entry, CollisionResolution collision);

    KeyFunction keyFunction;

private:
    /// Made on first use: typed code never pays for it.
    mutable std::unique_ptr<Associative> genericInterface;
};

/// The untyped keyed view of a `PrimitiveAssociativeContainer`, owned by it.
template <class K, class V, class C>
class PrimitiveAssociativeContainer<K, V, C>::Associative final : public GenericPrimitiveAssociativeInterface {
public:
    explicit Associative(PrimitiveAssociativeContainer const &map) noexcept : map_(map) {}
    std::vector<Value> genericFind(Value const &key) const override;
    std::vector<Value> genericKeys() const override;
    meta::Type genericKeyType() const override;

private:
    PrimitiveAssociativeContainer const &map_;
};

/// A map with unique keys, in key order.
template <class K, class V, class C> class PrimitiveMapBase : public PrimitiveAssociativeContainer<K, V, C> {
protected:
    using PrimitiveAssociativeContainer<K, V, C>::PrimitiveAssociativeContainer;
};

/// The map of a property qualified by a text of its data type entries: for `V`
/// `meta::VersionInfo`, keyed by `getFamily`, it holds a package's imported packages.
template <class K, class V> class PrimitiveMap final : public PrimitiveMapBase<K, V, boost::container::flat_map<K, V>> {
    using Base = PrimitiveMapBase<K, V, boost::container::flat_map<K, V>>;

public:
    PrimitiveMap(typename Base::KeyFunction key, ModelElement::CollectionPrivateTag const &,
                 ModelElement::Impl *owner, meta::Property::Impl *property)
        : Base(owner, property, std::move(key)) {}
    /// A free-standing map.
    explicit PrimitiveMap(typename Base::KeyFunction key) : Base(nullptr, nullptr, std::move(key)) {}
    std::unique_ptr<PrimitiveMap> cloneFreeStanding() const;
};

// Every instance is made once, in the library.
#define KIVRA_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member)                                              \
    extern template class PrimitiveCollection<Native, std::vector<Native>>;                                           \
    extern template class PrimitiveSequence<Native>;                                                                  \
    extern template class PrimitiveCollection<Native, boost::container::flat_set<Native>>;                            \
    extern template class PrimitiveSetBase<Native, boost::container::flat_set<Native>>;                               \
    extern template class PrimitiveSet<Native>;                                                                       \
    extern template class PrimitiveCollection<Native, detail::FlatHashSet<Native, services::hashers::KivraHasher<Native>>>; \
    extern template class PrimitiveSetBase<Native, detail::FlatHashSet<Native, services::hashers::KivraHasher<Native>>>; \
    extern template class UnorderedPrimitiveSet<Native>;
#include <kivra/meta/PrimitiveTypes.def>
extern template class PrimitiveCollection<meta::VersionInfo, std::vector<meta::VersionInfo>>;
extern template class PrimitiveSequence<meta::VersionInfo>;
extern template class PrimitiveCollection<meta::VersionInfo, boost::container::flat_map<basalt::ustring, meta::VersionInfo>>;
extern template class PrimitiveAssociativeContainer<basalt::ustring, meta::VersionInfo,
                                                    boost::container::flat_map<basalt::ustring, meta::VersionInfo>>;
extern template class PrimitiveMap<basalt::ustring, meta::VersionInfo>;

} // namespace kivra
