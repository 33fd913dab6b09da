#pragma once
/// \file
/// The value of a property of the primitive type "StringToStringMap": a map of texts that
/// its element owns.

#include <kivra/AbstractOwnedCollection.hpp>
#include <kivra/services/Hashers.hpp>

#include <basalt/ustring.hpp>

#include <cstddef>
#include <memory>
#include <unordered_map>

namespace kivra {

class Value;

/// A hashed map from text to text, the value of a single-valued property of type
/// "StringToStringMap". Each mutation runs in the frame of one change of its property and
/// is recorded once per transaction; a free-standing map (built without owner) has no
/// frame. Iterators are those of the container: a rehash invalidates them.
///
/// Example:
/// \code
///   StringToStringMap &labels = note->getLabelsMutable(); // generated accessor
///   labels.insert(u"colour", u"red", CollisionResolution::Replace);
///   basalt::ustring const &colour = labels.at(u"colour");
/// \endcode
class StringToStringMap final : public AbstractOwnedCollection {
public:
    using Container = std::unordered_map<basalt::ustring, basalt::ustring, services::hashers::KivraHasher<basalt::ustring>>;
    using const_iterator = Container::const_iterator;
    using iterator = const_iterator;

    /// A free-standing map.
    StringToStringMap();
    /// The map of `owner`'s `property`, made by the owner on first use.
    StringToStringMap(ModelElement::CollectionPrivateTag const &, ModelElement::Impl *owner,
                      meta::Property::Impl *property);
    ~StringToStringMap() override;

    /// The primitive type "StringToStringMap".
    meta::Type getCollectionType() const override;
    bool empty() const override { return container.empty(); }
    std::size_t size() const noexcept { return container.size(); }

    /// Stores `value` under `key`. A key that holds an equal value changes nothing; one
    /// that holds another value raises `UniquenessConstraint` under `Fail`, stays under
    /// `KeepExisting` and takes `value` under `Replace`. A refused or kept collision opens
    /// no frame.
    void insert(basalt::ustring const &key, basalt::ustring const &value, CollisionResolution collision);
    /// Takes every entry of `other`: its values win over those of the same keys. One change,
    /// also when `other` is empty.
    void merge(StringToStringMap const &other);
    /// Replaces the entries by a copy of `other`'s.
    void assign(StringToStringMap const &other);
    void assign(Container const &other);
    /// Replaces the entries by `other`'s, which is left empty.
    void assign(Container &&other);
    /// As `assign(other)`.
    void copyValues(StringToStringMap const &other);

    /// The value under `key`; an absent key raises `std::out_of_range`.
    basalt::ustring const &at(basalt::ustring const &key) const;
    const_iterator find(basalt::ustring const &key) const { return container.find(key); }
    const_iterator begin() const noexcept { return container.begin(); }
    const_iterator end() const noexcept { return container.end(); }
    Container const &toSTLCollection() const noexcept { return container; }

    /// Removes the entry at `position`; gives the one after it.
    const_iterator erase(const_iterator position);
    const_iterator erase(const_iterator first, const_iterator last);
    /// Removes the entry under `key`; gives the number removed. An absent key opens no frame.
    std::size_t erase(basalt::ustring const &key);
    void clear();

    /// The same entries; owner and property do not count.
    bool operator==(StringToStringMap const &other) const { return container == other.container; }

    /// A single value of the primitive type "StringToStringMap" that points at this map: a
    /// view, which copies share and which must not outlive the map.
    Value toValue();
    /// The map a value of `toValue` points at. Raises `CannotCastIncompatibleTypes` with the
    /// value's type name for any other value.
    static StringToStringMap &fromValue(Value const &value);

    /// A free-standing copy of the entries, as a change record keeps it.
    std::unique_ptr<StringToStringMap> cloneFreeStanding() const;
    /// Puts back the entries a change record kept; null stands for an empty map.
    void restoreFrom(StringToStringMap const *stored);

protected:
    void copyContents(AbstractOwnedCollection const &other) override;

private:
    Container container;
};

} // namespace kivra
