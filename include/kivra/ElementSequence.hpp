#pragma once
/// \file
/// The collection of an ordered element-typed property.

#include <kivra/ReferenceCollection.hpp>
#include <kivra/SaturatedBloomFilter.hpp>
#include <kivra/detail/EntryAllocator.hpp>

#include <compare>
#include <cstddef>
#include <iterator>
#include <memory>
#include <type_traits>
#include <vector>

namespace kivra {

/// What `toSTLCollectionWithResolvedProxies` resolves before it hands out the vector.
enum class ProxyResolutionStrategy : std::uint32_t { ResolveAll = 0, ResolveLocal = 1, ResolveNone = 2 };

namespace detail {
class MembershipIndex;
} // namespace detail

/// The untyped body of every `ElementSequence<V>`: a vector of handles in which a proxy
/// keeps its place until it resolves, since the position of an entry is part of the
/// model. A unique sequence turns a duplicate away without an error. Reads resolve
/// proxies in place, which is no change of the model.
///
/// Positions are indices; an index outside the vector is the caller's error, as for any
/// vector.
class ElementSequenceBase : public ReferenceCollection {
public:
    /// The entries of an element's sequence live in its model's memory while they are few.
    using Container = std::vector<ModelElement, detail::EntryAllocator<ModelElement>>;

    ~ElementSequenceBase() override;

    bool isUnique() const noexcept { return unique_; }
    /// Entries held, proxies included.
    std::size_t size() const noexcept { return entries_.size(); }
    bool empty() const override { return entries_.empty(); }
    meta::Type getCollectionType() const override;

    /// Whether `element` stands in the sequence. A proxy is never found. With a
    /// single-valued far end the far end answers; a large unique sequence answers from
    /// its index; otherwise the entries are scanned.
    bool contains(ModelElement const &element) const;
    /// Appends with association; nothing for an empty handle or, when unique, an element
    /// already held.
    void push_back(ModelElement const &element);
    /// Inserts before `position` with association and gives the new entry's index; in a
    /// unique sequence an element already held stays where it is and its index is given.
    /// An empty handle changes nothing and gives `size()`.
    std::size_t insert(std::size_t position, ModelElement const &element);
    void pop_back();
    /// Removes the entry at `position` with association; gives `position`.
    std::size_t erase(std::size_t position);
    /// Removes the entries of [first, last) with association.
    void erase(std::size_t first, std::size_t last);
    /// Removes the first entry that is `element`; an absent element is no error.
    void erase(ModelElement const &element);
    void clear() { erase(0, entries_.size()); }
    /// Exchanges two entries; no association, since no entry comes or goes.
    void swap(std::size_t a, std::size_t b);
    /// Shrinks from the back, or grows with elements that the registry's builder of the
    /// entry class makes in the owner's model. Growing a free-standing sequence, or one
    /// whose entry class has no builder, raises `NoSuchOperation` ("create", the entry class).
    void resize(std::size_t n);
    /// The same with elements that `builder` makes; a builder without a model gets the
    /// owner's. Raises `CannotAddIncompatibleTypes` for a builder of a class that is not
    /// the entry class or a subclass of it.
    void resize(std::size_t n, ModelElement::BuilderWrapper const &builder);
    /// Capacity only; no change of the model.
    void reserve(std::size_t n) { entries_.reserve(n); }

    /// The checked replacement of the entry at `index`: nothing when it is `element`
    /// already; `CannotAddNonExistentObject` for an empty handle; in a unique sequence
    /// `CannotAddSecondObject` for an element held elsewhere.
    void assignAt(std::size_t index, ModelElement const &element);
    /// Replaces the entry at `index`, telling the new far end first, then the old one.
    virtual void replaceElement(std::size_t index, ModelElement const &element);

    /// The entry at `index`, resolved in place first when it is a proxy (in a frozen model,
    /// or to an element new in a transaction, for the answer alone); an unresolved proxy
    /// comes back as the proxy.
    ModelElement resolveAtIndex(std::size_t index) const;
    /// The entry at `index` as it is stored.
    ModelElement const &rawAt(std::size_t index) const noexcept { return entries_[index]; }

    std::vector<ModelElement> getAllValues() const override;
    std::vector<ModelElement> getAllValuesAndProxies() const override {
        return std::vector<ModelElement>(entries_.begin(), entries_.end());
    }
    /// Empties the sequence as `basicClear` does and gives its entries with their
    /// references: the children of a destroyed owner leave without being copied.
    Container basicTakeAll();
    Container const &toSTLCollection() const noexcept { return entries_; }
    Container const &toSTLCollectionWithResolvedProxies(ProxyResolutionStrategy strategy);

    void replaceProxy(ModelElement const &element, std::size_t index) override;
    void resolveAll() override;

    /// The filter, when one is attached.
    SaturatedBloomFilter const *getFilter() const noexcept { return filter_.get(); }

    /// From this size on a unique sequence keeps a filter of its entries' UUIDs.
    static constexpr std::size_t filterThreshold = 16;
    /// From this size on a unique sequence keeps an exact index of its entries instead:
    /// the filter no longer tells absent elements apart.
    static constexpr std::size_t indexThreshold = 48;

protected:
    using EntryClass = meta::Class const &(*)();

    ElementSequenceBase(ModelElement::Impl *owner, bool unique, meta::Property::Impl *property,
                        meta::Property::Impl *opposite, EntryClass entryClass);

    void resolveLocal() override;
    void basicAdd(ModelElement const &element) override;
    void basicRemove(ModelElement const &element) override;
    void basicReplaceProxy(ModelElement const &element, std::size_t index) override;
    void basicAssign(std::vector<ModelElement> const &elements) override;
    void basicClear() override;
    void basicCopyValues(ReferenceCollection const &other) override;
    bool basicContainsProxyTo(ModelElement const &element) override;
    void assignFrom(ReferenceCollection const &other) override;

private:
    void doResize(std::size_t n, ModelElement::Builder *builder);
    /// The generic view, which forwards to the public operations after the class test.
    class GenericSequence final : public GenericSequenceInterface {
    public:
        explicit GenericSequence(ElementSequenceBase &sequence) noexcept : sequence_(sequence) {}
        std::size_t genericSize() const override;
        void genericAdd(ModelElement const &element) override;
        void genericEnsureAt(ModelElement const &element, std::size_t index) override;
        void genericRemove(ModelElement const &element) override;
        void genericClear() override;
        void genericBasicClear() override;
        bool genericContains(ModelElement const &element) const override;
        ModelElement genericAt(std::size_t index) override;
        void genericInsert(ModelElement const &element, std::size_t index) override;
        void genericReplace(ModelElement const &element, std::size_t index) override;
        void genericRemoveAt(std::size_t index) override;
        int genericIndexOf(ModelElement const &element) override;

    private:
        ElementSequenceBase &sequence_;
    };

    /// Tries to resolve the proxy at `index`; true when the entry is no proxy afterwards.
    /// An element new in a transaction takes the proxy's place only once the change that
    /// needs it is `recorded`, so that a roll-back finds the proxy again.
    bool resolveInplace(std::size_t index, bool recorded = false) const;
    /// Whether the entry at `index` is `element`, or a proxy that reads as it.
    bool readsAs(std::size_t index, ModelElement const &element) const;
    /// The element the proxy at `index` stands for when it may take its place; else null.
    ModelElement resolutionOf(std::size_t index) const;
    bool holds(ModelElement::Impl const *element) const;
    void noteAdded(ModelElement::Impl const *element);
    void noteRemoved(ModelElement::Impl const *element);
    /// Whether the size calls for a filter or an index of the entries.
    bool wantsMembership() const noexcept { return unique_ && entries_.size() >= filterThreshold; }
    /// Attaches the filter or the index once the size calls for it.
    void grow();
    void rebuildMembership();
    /// The far end of the entry at `index` lets go; a proxy is resolved first.
    void dissociateAt(std::size_t index);

    mutable Container entries_;
    std::unique_ptr<SaturatedBloomFilter> filter_;
    std::unique_ptr<detail::MembershipIndex> index_;
    EntryClass entryClass_;
    bool unique_;
    /// False when no entry can be a proxy: `resolveAll` then has nothing to walk.
    mutable bool mayHoldProxies_ = false;
    GenericSequence view_{*this};
};

namespace internal {

/// `element` as a handle of `V`, whose implementation it is.
template <class V> V entryAs(ModelElement const &element) {
    if constexpr (std::is_same_v<V, ModelElement>)
        return element;
    else
        return V::fromImpl(static_cast<typename V::Impl *>(element.get()));
}
/// The same, taking over the reference of a handle that goes.
template <class V> V entryAs(ModelElement &&element) {
    V handle;
    static_cast<ModelElement &>(handle) = std::move(element);
    return handle;
}

/// A slot of a sequence: reads it as stored, and assigning to it is the checked replacement.
template <class V> class ElementIndex {
public:
    ElementIndex(ElementSequenceBase &sequence, std::size_t index) noexcept : sequence_(&sequence), index_(index) {}
    operator V() const { return entryAs<V>(sequence_->rawAt(index_)); }
    typename V::Impl *operator->() const { return static_cast<V>(*this).get(); }
    ElementIndex &operator=(V const &element) {
        sequence_->assignAt(index_, element);
        return *this;
    }
    ElementIndex &operator=(ElementIndex const &other) { return *this = static_cast<V>(other); }

private:
    ElementSequenceBase *sequence_;
    std::size_t index_;
};

/// A slot of a sequence read with its proxy resolved in place.
template <class V> class ConstElementIndex {
public:
    ConstElementIndex(ElementSequenceBase const &sequence, std::size_t index) noexcept
        : sequence_(&sequence), index_(index) {}
    operator V() const { return entryAs<V>(sequence_->resolveAtIndex(index_)); }
    typename V::Impl *operator->() const { return static_cast<V>(*this).get(); }

private:
    ElementSequenceBase const *sequence_;
    std::size_t index_;
};

/// The random-access iterators of a sequence: a (sequence, position) pair. `Modifying`
/// gives slots that can be assigned; the constant form gives entries resolved in place.
template <class V, bool Modifying> class SequenceIteratorBase {
public:
    using Sequence = std::conditional_t<Modifying, ElementSequenceBase, ElementSequenceBase const>;
    using iterator_category = std::random_access_iterator_tag;
    using iterator_concept = std::random_access_iterator_tag;
    using value_type = V;
    using difference_type = std::ptrdiff_t;
    using reference = std::conditional_t<Modifying, ElementIndex<V>, V>;
    using pointer = void;

    SequenceIteratorBase() noexcept = default;
    SequenceIteratorBase(Sequence &sequence, std::size_t index) noexcept : sequence_(&sequence), index_(index) {}

    reference operator*() const {
        if constexpr (Modifying)
            return ElementIndex<V>(*sequence_, index_);
        else
            return entryAs<V>(sequence_->resolveAtIndex(index_));
    }
    typename V::Impl *operator->() const { return static_cast<V>(**this).get(); }
    reference operator[](difference_type n) const { return *(*this + n); }

    SequenceIteratorBase &operator++() noexcept { return ++index_, *this; }
    SequenceIteratorBase operator++(int) noexcept { return {*sequence_, index_++}; }
    SequenceIteratorBase &operator--() noexcept { return --index_, *this; }
    SequenceIteratorBase operator--(int) noexcept { return {*sequence_, index_--}; }
    SequenceIteratorBase &operator+=(difference_type n) noexcept { return index_ += n, *this; }
    SequenceIteratorBase &operator-=(difference_type n) noexcept { return index_ -= n, *this; }
    friend SequenceIteratorBase operator+(SequenceIteratorBase it, difference_type n) noexcept { return it += n; }
    friend SequenceIteratorBase operator+(difference_type n, SequenceIteratorBase it) noexcept { return it += n; }
    friend SequenceIteratorBase operator-(SequenceIteratorBase it, difference_type n) noexcept { return it -= n; }
    friend difference_type operator-(SequenceIteratorBase const &a, SequenceIteratorBase const &b) noexcept {
        return difference_type(a.index_) - difference_type(b.index_);
    }
    friend bool operator==(SequenceIteratorBase const &a, SequenceIteratorBase const &b) noexcept {
        return a.index_ == b.index_;
    }
    friend auto operator<=>(SequenceIteratorBase const &a, SequenceIteratorBase const &b) noexcept {
        return a.index_ <=> b.index_;
    }

    /// The position in the sequence.
    std::size_t index() const noexcept { return index_; }

private:
    Sequence *sequence_ = nullptr;
    std::size_t index_ = 0;
};

template <class V> using SequenceIterator = SequenceIteratorBase<V, false>;
template <class V> using ModifyingIterator = SequenceIteratorBase<V, true>;

} // namespace internal

/// The collection of an ordered property whose entries are `V` elements (generated
/// handles, or `ModelElement`). `V` only sets the entry class: all behaviour is that of
/// `ElementSequenceBase`.
///
/// Example:
/// \code
///   author->getBooksMutable().push_back(book); // book->getWriter() is now author
///   for (Book const &each : author->getBooks())
///       total += each->getPages();
/// \endcode
template <class V> class ElementSequence final : public ElementSequenceBase {
public:
    using iterator = internal::ModifyingIterator<V>;
    using const_iterator = internal::SequenceIterator<V>;
    using reverse_iterator = std::reverse_iterator<iterator>;
    using const_reverse_iterator = std::reverse_iterator<const_iterator>;
    using value_type = V;

    /// The collection of `owner`'s `property`; made by the owner on first use.
    ElementSequence(ModelElement::CollectionPrivateTag const &, ModelElement::Impl *owner, bool unique,
                    meta::Property::Impl *property, meta::Property::Impl *opposite)
        : ElementSequenceBase(owner, unique, property, opposite, &V::metaClass) {}
    /// A free-standing sequence.
    explicit ElementSequence(bool unique = true) : ElementSequenceBase(nullptr, unique, nullptr, nullptr, &V::metaClass) {}

    V front() const { return internal::entryAs<V>(resolveAtIndex(0)); }
    V back() const { return internal::entryAs<V>(resolveAtIndex(size() - 1)); }
    internal::ElementIndex<V> operator[](std::size_t i) { return {*this, i}; }
    internal::ConstElementIndex<V> operator[](std::size_t i) const { return {*this, i}; }

    iterator begin() { return {*this, 0}; }
    iterator end() { return {*this, size()}; }
    const_iterator begin() const { return {*this, 0}; }
    const_iterator end() const { return {*this, size()}; }
    const_iterator cbegin() const { return begin(); }
    const_iterator cend() const { return end(); }
    reverse_iterator rbegin() { return reverse_iterator(end()); }
    reverse_iterator rend() { return reverse_iterator(begin()); }
    const_reverse_iterator rbegin() const { return const_reverse_iterator(end()); }
    const_reverse_iterator rend() const { return const_reverse_iterator(begin()); }
    const_reverse_iterator crbegin() const { return rbegin(); }
    const_reverse_iterator crend() const { return rend(); }

    using ElementSequenceBase::erase;
    using ElementSequenceBase::insert;
    using ElementSequenceBase::swap;
    iterator insert(iterator position, V const &element) { return {*this, insert(position.index(), element)}; }
    iterator erase(iterator position) { return {*this, erase(position.index())}; }
    void erase(iterator first, iterator last) { erase(first.index(), last.index()); }
    void swap(iterator a, iterator b) { swap(a.index(), b.index()); }
    using ElementSequenceBase::resize;
};

} // namespace kivra
