#pragma once
/// \file
/// What a transaction did, as listeners see it.

#include <kivra/ChangeRecords.hpp>
#include <kivra/Handles.hpp>
#include <kivra/Model.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/TransactionOrigin.hpp>
#include <kivra/services/Hashers.hpp>

#include <boost/optional/optional.hpp>

#include <memory>
#include <utility>
#include <unordered_map>
#include <vector>

namespace kivra {
namespace detail {
class RecordLog;
} // namespace detail

/// The report of one transaction: which elements were created, modified, destroyed, or
/// created and destroyed, with the change records that say which properties changed and,
/// in a deep transaction, what they were before. Shared by `std::shared_ptr`; it keeps
/// the elements it names alive, but not their model: a report kept after the model is
/// gone answers as before about elements that are now tombstones, and `getModel` gives
/// a handle that converts to false.
class ReportData {
public:
    /// Made by the transaction, over its records.
    ReportData(Model::Impl *model, std::shared_ptr<detail::RecordLog const> changes, meta::TransactionOrigin origin, bool deep,
               bool detectAndRevert, bool allElementsDestroyed, boost::optional<Value> commitArgument);

    Model getModel() const;
    meta::TransactionOrigin const &getOrigin() const noexcept { return origin_; }
    boost::optional<Value> const &getCommitArgument() const noexcept { return commitArgument_; }
    bool isDeep() const noexcept { return deep_; }

    /// True when nothing at all is reported.
    bool isEmpty() const noexcept { return !containsAnyModelElementChanges(); }
    bool containsAnyModelElementChanges() const noexcept;
    /// True when an element of class `cls` (or a subclass) is reported, or when all
    /// elements were destroyed.
    bool containsElementChanges(meta::Class const &cls) const;
    /// True after `destroyAllContents`.
    bool allElementsDestroyed() const noexcept { return allElementsDestroyed_; }

    /// Whether `property` of `element` changed; false for what the report does not hold.
    bool isChanged(ModelElement const &element, meta::Property const &property) const;
    /// The changed properties of `element`, in index order; empty when it has no record.
    std::vector<meta::Property> getChangedProperties(ModelElement const &element) const;
    /// Whether the value of the extension `name` of `element` changed; false for what the
    /// report does not hold.
    bool isExtensionChanged(ModelElement const &element, basalt::ustring const &name) const;
    /// The extensions of `element` whose values changed; empty when it has no record.
    std::vector<meta::Extension> getChangedExtensions(ModelElement const &element) const;
    /// The value of the extension `name` of `element` before the transaction. Raises
    /// `GetOldValueFromNonDeep` for a shallow transaction, and `NoSuchProperty` for an
    /// element without record or an extension that did not change.
    Value getExtensionOldValue(ModelElement const &element, basalt::ustring const &name) const;
    /// The value `property` of `element` had before the transaction. Raises
    /// `GetOldValueFromNonDeep` for a shallow transaction; an element or property the
    /// report does not hold gives the property's empty value; a property that did not
    /// change raises `NoSuchProperty` (ask `isChanged` first). The old value of a
    /// multi-valued property views the collection the report keeps, uncopied: it and its
    /// copies are good while the report lives (`extractEntryValues` keeps the entries).
    Value getOldValue(ModelElement const &element, meta::Property const &property) const;

    std::vector<ModelElement> const &getCreated() const noexcept { return created_; }
    /// Modified and neither created nor destroyed.
    std::vector<ModelElement> const &getModified() const noexcept { return modified_; }
    /// Destroyed and not created in the transaction.
    std::vector<ModelElement> const &getDestroyed() const noexcept { return destroyed_; }
    std::vector<ModelElement> const &getCreatedAndDestroyed() const noexcept { return createdAndDestroyed_; }

    /// The elements of one list that are `H`s (a generated handle class).
    template <class H> std::vector<H> of(std::vector<ModelElement> const &elements) const {
        std::vector<H> result;
        for (ModelElement const &element : elements)
            if (auto *impl = dynamic_cast<typename H::Impl *>(element.get()))
                result.push_back(H::fromImpl(impl));
        return result;
    }

    /// Sorts an element into its list by its record; with detect-and-revert, an element
    /// whose every change was undone is left out.
    void processElement(ModelElement const &element, ModelElement::Impl::Changes &record);

private:
    ModelElement::Impl::Changes *recordOf(ModelElement const &element) const;

    /// Keeps the model's object in memory without keeping the model alive.
    class ModelHold {
    public:
        explicit ModelHold(Model::Impl *model) noexcept : model_(model) { model_->hold(); }
        ModelHold(ModelHold const &other) noexcept : ModelHold(other.model_) {}
        ModelHold(ModelHold &&other) noexcept : model_(std::exchange(other.model_, nullptr)) {}
        ModelHold &operator=(ModelHold other) noexcept {
            std::swap(model_, other.model_);
            return *this;
        }
        ~ModelHold() {
            if (model_)
                model_->releaseHold();
        }
        Model::Impl *get() const noexcept { return model_; }

    private:
        Model::Impl *model_;
    };

    std::shared_ptr<detail::RecordLog const> changes_;
    ModelHold model_;
    std::vector<ModelElement> created_;
    std::vector<ModelElement> modified_;
    std::vector<ModelElement> destroyed_;
    std::vector<ModelElement> createdAndDestroyed_;
    boost::optional<Value> commitArgument_;
    bool detectAndRevert_;
    bool deep_;
    bool allElementsDestroyed_;
    meta::TransactionOrigin origin_;
};

} // namespace kivra
