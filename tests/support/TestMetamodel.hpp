#pragma once
// A small metamodel written in the pattern of generated metaclasses, shared by the tests
// of every subsystem.

#include <kivra/Model.hpp>
#include <kivra/ModelElement.hpp>
#include <kivra/meta/Class.hpp>

#include <functional>

namespace kivra::test {

/// A generated-style element class: handle, `Impl`, `create`.
class Book : public ModelElement {
public:
    class Impl;

    Book() noexcept = default;
    Impl *get() const noexcept;
    Impl *operator->() const noexcept { return get(); }

    /// A new top-level book in `model`.
    static Book create(Model const &model, boost::uuids::uuid const &uuid = {});

private:
    Book(Impl *impl, bool addReference) noexcept;
};

class Book::Impl : public ModelElement::Impl {
public:
    meta::Class const &getMetaClass() const override;

    /// Runs while the element is being deleted, to test what code in destructors may do.
    static inline std::function<void(Impl *)> onDelete;
    /// Counts deletions of books.
    static inline int deletions = 0;

protected:
    friend class Book;
    Impl(Model const &model, boost::uuids::uuid const &uuid) : ModelElement::Impl(model, uuid) {}
    ~Impl() override;
    void doDestroy(bool modelDestroying, bool multiModel) override {
        ModelElement::Impl::doDestroy(modelDestroying, multiModel);
    }
};

/// Stands for an element of a reflective model, to test content rules.
class ReflectiveNote : public ModelElement {
public:
    class Impl;
    static ReflectiveNote create(Model const &model, boost::uuids::uuid const &uuid = {});

private:
    ReflectiveNote(ModelElement::Impl *impl) noexcept : ModelElement(impl, false) {}
};

/// A handle on `impl` that takes a reference, for tests that need one from a raw pointer.
ModelElement handleOf(ModelElement::Impl *impl);

} // namespace kivra::test
