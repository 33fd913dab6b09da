#include <kivra/meta/Class.hpp>
#include <kivra/meta/Package.hpp>
#include <kivra/meta/Type.hpp>

namespace kivra::meta {

namespace {

// The cache is filled outside any transaction and leaves no change record: it is derived
// state, and the registry model is read concurrently once frozen.
template <class Impl>
basalt::ustring qualify(Impl const &self, boost::optional<basalt::ustring> &cache, Package const &parent) {
    if (cache)
        return *cache;
    if (!parent)
        return self.getName();
    basalt::ustring const prefix = parent->getQualifiedName();
    if (prefix.empty())
        return self.getName();
    cache = prefix + u'.' + self.getName();
    return *cache;
}

} // namespace

basalt::ustring Type::Impl::getQualifiedName() const {
    return qualify(*this, const_cast<Impl *>(this)->cachedQualifiedName_, getOwningPackage());
}

basalt::ustring Package::Impl::getQualifiedName() const {
    return qualify(*this, const_cast<Impl *>(this)->cachedQualifiedName_, getParentPackage());
}

bool Type::Impl::isA(Type const &other) const { return other.get() == this; }

bool Class::Impl::isA(Type const &other) const {
    if (!other.get())
        return false;
    for (Class::Impl const *cls = this; cls; cls = cls->superclass_.get())
        if (cls == other.get())
            return true;
    return false;
}

} // namespace kivra::meta
