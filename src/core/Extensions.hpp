#pragma once
// Not API: the tables behind a model's extensions and the records of their changes.

#include <kivra/AbstractOwnedCollection.hpp>
#include <kivra/Listener.hpp>
#include <kivra/Model.hpp>
#include <kivra/ModelElement.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Handles.hpp>

#include <basalt/ustring.hpp>

#include <boost/optional/optional.hpp>
#include <boost/uuid/uuid.hpp>

#include <absl/container/flat_hash_map.h>

#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kivra::detail {

/// One extension a model declared, with the class it extends and its default.
struct DeclaredExtension {
    meta::Extension extension;
    meta::Class owningClass;
    boost::optional<Value> defaultValue;
};

/// A value of an extension: a single value, or a collection the holder owns.
struct ExtensionSlot {
    boost::optional<Value> value;
    std::unique_ptr<AbstractOwnedCollection> collection;

    /// The value as readers see it: a copy, or a view of the collection.
    Value read(meta::Extension const &extension) const;
};

/// An element's value of one extension, under the extension's UUID: a record under a name
/// whose extension now has another UUID is stale.
struct ExtensionValue : ExtensionSlot {
    boost::uuids::uuid extension{};
};

/// The values an element holds other than the defaults, by extension name.
struct ElementExtensionValues : std::map<basalt::ustring, ExtensionValue, std::less<>> {
    /// Collections of extensions that are gone. A caller may still hold a view of one, as
    /// of any collection of a live element, so it stays until the element's values go.
    std::vector<std::unique_ptr<AbstractOwnedCollection>> retired;

    /// Drops the value at `stale`, keeping its collection among the retired.
    iterator retire(iterator stale) {
        if (stale->second.collection)
            retired.push_back(std::move(stale->second.collection));
        return erase(stale);
    }
    /// True when the element may leave the table: no value, and no retired collection.
    bool holdsNothing() const noexcept { return empty() && retired.empty(); }
};

/// What a model keeps of its extensions, made at the first need: elements without
/// extension values cost nothing.
struct ModelExtensions {
    std::unordered_multimap<basalt::ustring, DeclaredExtension> declared;
    std::vector<ExtensionListener *> listeners;
    absl::flat_hash_map<ModelElement::Impl const *, std::unique_ptr<ElementExtensionValues>> values;
    /// Held by the readers of a frozen model around `values`: the first read of a
    /// collection extension makes it, and a read drops a stale value.
    std::mutex frozenReaders;

    /// The hold of `frozenReaders` for a reader of a model that is `frozen`; none for a
    /// model that changes, which has one user at a time.
    std::unique_lock<std::mutex> lockForReaders(bool frozen) {
        return frozen ? std::unique_lock<std::mutex>(frozenReaders) : std::unique_lock<std::mutex>();
    }

    /// The record of `name` whose class is `cls` or, with `inherited`, the nearest of its
    /// superclasses; null when none.
    DeclaredExtension const *find(meta::Class const &cls, basalt::ustring const &name, bool inherited) const;
};

/// The extensions a record saw change, by UUID; the slot holds the old value when the
/// record keeps old values, and is null otherwise.
struct ExtensionChanges {
    std::vector<std::pair<boost::uuids::uuid, std::unique_ptr<ExtensionSlot>>> entries;

    std::pair<boost::uuids::uuid, std::unique_ptr<ExtensionSlot>> *find(boost::uuids::uuid const &uuid) {
        for (auto &entry : entries)
            if (entry.first == uuid)
                return &entry;
        return nullptr;
    }
};

} // namespace kivra::detail
