#pragma once
/// \file
/// Listeners: what clients implement to hear of transactions in three roles.

#include <kivra/Handles.hpp>
#include <kivra/meta/Fwd.hpp>

#include <memory>
#include <utility>

namespace kivra {

class ReportData;

/// The base of every listener. A listener takes one or more roles, given when it is
/// added to a model (`addListener`):
/// - a modifier (`void modify(std::shared_ptr<ReportData> const &)`) may change the model
///   further before the commit;
/// - a validator (`bool validate(std::shared_ptr<ReportData> const &)`) may veto the commit;
/// - an observer (`void transactionCommitted(std::shared_ptr<ReportData> const &)` and
///   `void transactionCanceled(bool wasDeep, std::shared_ptr<ReportData> const &)`) is told
///   afterwards.
///
/// Example:
/// \code
///   struct Printer : kivra::Listener {
///       void transactionCommitted(std::shared_ptr<kivra::ReportData> const &report) { ... }
///   };
///   Printer printer;
///   kivra::addListener<kivra::ListenerRole::Observer>(model, printer);
/// \endcode
class Listener {
public:
    virtual ~Listener() = default;
    /// Called once when the listener is taken off its model, or the model goes away.
    virtual void listenerRemoved() {}
};

/// Hears of the extensions a model declares and removes. Kept by the model without
/// ownership (`Model::Impl::addExtensionListener`); the caller removes it before it dies.
/// A listener may remove itself while it is told.
class ExtensionListener {
public:
    virtual ~ExtensionListener() = default;
    /// `extension` was declared by `model`.
    virtual void extensionAdded(Model const &model, meta::Extension const &extension) = 0;
    /// `extension` of `model` is about to go; it is still whole.
    virtual void extensionRemoved(Model const &model, meta::Extension const &extension) = 0;
    /// Called once when the listener is taken off, or its model goes away.
    virtual void listenerRemoved() {}
};

/// Adapts a listener to the transactions of one model; owned by the model.
class ListenerHolderBase {
public:
    ListenerHolderBase(Listener *listener, bool shallow, bool modifier, bool validator, bool observer, bool ownsListener)
        : listener_(listener), shallow_(shallow), modifier_(modifier), validator_(validator), observer_(observer),
          ownsListener_(ownsListener) {}
    /// Tells the listener that it was removed, and deletes it when owned.
    virtual ~ListenerHolderBase();
    ListenerHolderBase(ListenerHolderBase const &) = delete;
    ListenerHolderBase &operator=(ListenerHolderBase const &) = delete;

    virtual void modify(std::shared_ptr<ReportData> const &report) = 0;
    virtual bool validate(std::shared_ptr<ReportData> const &report) = 0;
    virtual void transactionCommitted(std::shared_ptr<ReportData> const &report) = 0;
    virtual void transactionCanceled(bool wasDeep, std::shared_ptr<ReportData> const &report) = 0;

    Listener *getListener() const noexcept { return listener_; }
    /// True when the listener needs no old values; one that does makes every new
    /// transaction of the model deep.
    bool isShallow() const noexcept { return shallow_; }
    bool isModifier() const noexcept { return modifier_; }
    bool isValidator() const noexcept { return validator_; }
    bool isObserver() const noexcept { return observer_; }

private:
    friend class Model::Impl;
    /// Lets go of the listener without a word to it: a second holder of a listener that
    /// is registered already goes away quietly.
    void forgetListener() noexcept { listener_ = nullptr; }
    Listener *listener_;
    bool shallow_;
    bool modifier_;
    bool validator_;
    bool observer_;
    bool ownsListener_;
};

/// The roles of a listener, combined as flags.
enum ListenerRole : unsigned {
    Modifier = 1,
    Validator = 2,
    Observer = 4,
    /// Needs no old values: transactions stay shallow for this listener.
    Shallow = 8,
};

/// The holder of a listener of class `T` in the roles `Roles`: calls the member
/// functions of `T` that the roles name. It keeps no report: a report holds its model,
/// and the model holds its listeners.
template <class T, unsigned Roles> class ListenerHolder final : public ListenerHolderBase {
public:
    ListenerHolder(T *listener, bool ownsListener)
        : ListenerHolderBase(listener, (Roles & Shallow) != 0, (Roles & Modifier) != 0, (Roles & Validator) != 0,
                             (Roles & Observer) != 0, ownsListener),
          listener_(listener) {}

    void modify(std::shared_ptr<ReportData> const &report) override {
        if constexpr ((Roles & Modifier) != 0)
            listener_->modify(report);
    }
    bool validate(std::shared_ptr<ReportData> const &report) override {
        if constexpr ((Roles & Validator) != 0)
            return listener_->validate(report);
        else
            return true;
    }
    void transactionCommitted(std::shared_ptr<ReportData> const &report) override {
        if constexpr ((Roles & Observer) != 0)
            listener_->transactionCommitted(report);
    }
    void transactionCanceled(bool wasDeep, std::shared_ptr<ReportData> const &report) override {
        if constexpr ((Roles & Observer) != 0 && requires { listener_->transactionCanceled(wasDeep, report); })
            listener_->transactionCanceled(wasDeep, report);
    }

private:
    T *listener_;
};

namespace detail {
void addListenerHolder(Model const &model, std::unique_ptr<ListenerHolderBase> holder);
} // namespace detail

/// Adds `listener` to the model in the roles `Roles` (combined `ListenerRole` flags); the
/// caller keeps ownership and must remove it before it dies. Adding one listener twice
/// does nothing.
template <unsigned Roles, class T> void addListener(Model const &model, T &listener) {
    detail::addListenerHolder(model, std::make_unique<ListenerHolder<T, Roles>>(&listener, false));
}

/// As `addListener`, with the model owning the listener.
template <unsigned Roles, class T> void addOwnedListener(Model const &model, std::unique_ptr<T> listener) {
    detail::addListenerHolder(model, std::make_unique<ListenerHolder<T, Roles>>(listener.release(), true));
}

/// Takes `listener` off the model: it is skipped by the phases still to come in the
/// transaction in progress, and told `listenerRemoved()`.
void removeListener(Model const &model, Listener const &listener);

} // namespace kivra
