#pragma once
// Element classes that the generated sample metamodel (library/) cannot stand for:
// one that reports its own deletion, and one that passes for a reflective element.

#include <kivra/Model.hpp>
#include <kivra/ModelElement.hpp>
#include <kivra/meta/Class.hpp>

#include <functional>
#include <vector>

namespace kivra::test {

/// The smallest element: the base and nothing else, with a hook that runs at deletion.
class Probe : public ModelElement {
public:
    class Impl;

    Probe() noexcept = default;
    Impl *get() const noexcept;
    Impl *operator->() const noexcept { return get(); }

    /// A new top-level probe in `model`.
    static Probe create(Model const &model, boost::uuids::uuid const &uuid = {});

private:
    Probe(Impl *impl, bool addReference) noexcept;
};

class Probe::Impl : public ModelElement::Impl {
public:
    meta::Class const &getMetaClass() const override;
    Changes *createChanges() const override;
    Storage *createStorage() const override;

    /// Runs while the element is being deleted, to test what code in destructors may do.
    static inline std::function<void(Impl *)> onDelete;
    /// Counts deletions of probes.
    static inline int deletions = 0;

    /// The properties this probe was told of as the far end of an association, in order;
    /// it stores nothing.
    std::vector<meta::Property> inverseAdds;
    void inverseAdd(ModelElement const &, meta::Property const &property) override { inverseAdds.push_back(property); }

protected:
    friend class Probe;
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


} // namespace kivra::test
