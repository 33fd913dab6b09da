#include <kivra/meta/Class.hpp>
#include <kivra/meta/Package.hpp>
#include <kivra/meta/Type.hpp>

#include <mutex>

namespace kivra::meta {

namespace {

// The cache is filled outside any transaction and leaves no change record: it is derived
// state. The registry model is read from many threads at once, so the cache has a lock.
std::mutex &cacheMutex() {
    static std::mutex mutex;
    return mutex;
}

template <class Impl>
basalt::ustring qualify(Impl const &self, boost::optional<basalt::ustring> &cache, Package const &parent) {
    {
        std::lock_guard lock(cacheMutex());
        if (cache)
            return *cache;
    }
    if (!parent)
        return self.getName();
    basalt::ustring const prefix = parent->getQualifiedName(); // outside the lock: it recurses
    if (prefix.empty())
        return self.getName();
    basalt::ustring result = prefix + u'.' + self.getName();
    std::lock_guard lock(cacheMutex());
    cache = result;
    return result;
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
