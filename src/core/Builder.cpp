#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/ReferenceCollection.hpp>
#include <kivra/ModelElement.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/Property.hpp>

#include <cassert>
#include <cstring>
#include <iterator>

namespace kivra {

namespace {

[[noreturn]] void raiseNoSuchProperty(meta::Property const &property, meta::Class const &cls) {
    raise<messages::NoSuchProperty>(property ? property->getName() : basalt::ustring(),
                                    cls ? cls->getQualifiedName() : basalt::ustring());
}

} // namespace

// --- Builder -------------------------------------------------------------------------------

ModelElement::BuilderWrapper::BuilderWrapper(std::unique_ptr<Builder> builder, meta::Class const &cls)
    : builder_(std::move(builder)) {
    if (!builder_)
        return;
    meta::Class const &made = builder_->getMetaClass();
    if (!made || !cls || !made->isA(cls))
        raise<messages::CannotCastIncompatibleTypes>(cls ? cls->getQualifiedName() : basalt::ustring());
}

ModelElement::Builder::Builder(Model const &model, std::size_t bitCount) : model_(model), bitCount_(bitCount) {
    if (bitCount_ <= 64) {
        inlineBits_[0] = inlineBits_[1] = 0;
    } else {
        std::size_t const blocks = (bitCount_ + 31) / 32;
        heapBits_ = new std::uint32_t[blocks];
        std::memset(heapBits_, 0, blocks * sizeof(std::uint32_t));
    }
}

ModelElement::Builder::~Builder() {
    // A builder dropped in the middle of a creation must not be reached through it again.
    if (orchestrator_)
        orchestrator_->removeBuilder(this);
    if (bitCount_ > 64)
        delete[] heapBits_;
}

void ModelElement::Builder::setModel(Model const &model) { model_ = model; }

void ModelElement::Builder::markSet(std::uint64_t index) noexcept {
    if (index < bitCount_)
        bits()[index / 32] |= 1u << (index % 32);
}

void ModelElement::Builder::clearSet(std::uint64_t index) noexcept {
    if (index < bitCount_)
        bits()[index / 32] &= ~(1u << (index % 32));
}

void ModelElement::Builder::addBuilder(Builder *builder) {
    if (orchestrator_)
        orchestrator_->addBuilder(builder);
}

void ModelElement::Builder::setOrAdd(meta::Property const &property, Value const &value) {
    for (Level *level = top_; level; level = level->up_) {
        std::uint64_t const index = level->doSetOrAdd(property, value);
        if (index != Level::notOwn) {
            markSet(index);
            return;
        }
    }
    raiseNoSuchProperty(property, getMetaClass());
}

void ModelElement::Builder::setOrAdd(meta::Property const &property, std::unique_ptr<Builder> child) {
    if (child) {
        for (Level *level = top_; level; level = level->up_) {
            std::uint64_t const index = level->doSetOrAdd(property, child);
            if (index != Level::notOwn) {
                markSet(index);
                return;
            }
        }
    }
    raiseNoSuchProperty(property, getMetaClass());
}

ModelElement ModelElement::Builder::create(boost::uuids::uuid const &uuid) {
    meta::Class const &cls = getMetaClass();
    if (cls && cls->getIsAbstract())
        raise<messages::NoSuchOperation>(u"create", cls->getQualifiedName());
    return doCreate(/*noCascade=*/false, uuid);
}

ModelElement ModelElement::Builder::createProxy(ProxyId const &proxyId) {
    ModelElement element = doCreate(/*noCascade=*/true, {});
    element->makeProxy(proxyId);
    return element;
}

ModelElement ModelElement::Builder::runCreation(bool noCascade, boost::uuids::uuid const &uuid, Construct construct) {
    if (!orchestrator_) {
        Orchestrator orchestrator(this);
        ModelElement element = build(noCascade, uuid, construct);
        orchestrator.commit();
        return element;
    }
    // A child of a running creation: one builder in two places of a tree is one element.
    if (ModelElement made = orchestrator_->getCreatedElement(this))
        return made;
    return build(noCascade, uuid, construct);
}

ModelElement ModelElement::Builder::build(bool noCascade, boost::uuids::uuid const &uuid, Construct construct) {
    ModelElement element = fromImpl(construct(*this, uuid));
    // Entered once the constructor is through: a half-made element is never counted.
    if (orchestrator_)
        orchestrator_->registerCreatedElement(this, element);
    if (noCascade)
        return element;
    element->notifyCreated();
    // References go after every plain member of every level, in index order: from the
    // root level down. Children are made after the references, most derived level first.
    Level *chain[16];
    std::size_t depth = 0;
    for (Level *level = top_; level; level = level->up_) {
        assert(depth < std::size(chain) && "a class chain deeper than 16 levels");
        chain[depth++] = level;
    }
    for (std::size_t i = depth; i-- > 0;)
        chain[i]->applyReferences(*element.get());
    for (std::size_t i = 0; i < depth; ++i)
        chain[i]->cascadeCreation(*element.get());
    return element;
}

// --- Level ---------------------------------------------------------------------------------

std::uint64_t ModelElement::Builder::Level::doSetOrAdd(meta::Property const &, Value const &) { return notOwn; }

std::uint64_t ModelElement::Builder::Level::doSetOrAdd(meta::Property const &, std::unique_ptr<Builder> &) {
    return notOwn;
}

void ModelElement::Builder::Level::applyReferences(Impl &) {}

void ModelElement::Builder::Level::cascadeCreation(Impl &) {}

ModelElement ModelElement::Builder::Level::createChild(Builder &child) {
    root_->addBuilder(&child);
    return child.create({});
}

bool ModelElement::Builder::Level::fits(Builder const &child, meta::Property const &property) {
    meta::Class const &cls = child.getMetaClass();
    return property && cls && cls->isA(property->getType());
}

void ModelElement::Builder::Level::addTo(ReferenceCollection &collection, ModelElement const &entry) {
    collection.getGenericInterface()->genericAdd(entry);
}

// --- Orchestrator --------------------------------------------------------------------------

std::size_t ModelElement::Builder::Orchestrator::PointerHash::operator()(Builder *builder) const noexcept {
    // FNV-1a over the pointer's bytes, least significant first.
    auto bits = reinterpret_cast<std::uintptr_t>(builder);
    std::uint64_t hash = 14695981039346656037ull;
    for (std::size_t i = 0; i < sizeof(bits); ++i) {
        hash ^= (bits >> (8 * i)) & 0xffu;
        hash *= 1099511628211ull;
    }
    return static_cast<std::size_t>(hash);
}

ModelElement::Builder::Orchestrator::Orchestrator(Builder *root) : root_(nullptr) {
    Model::Impl *model = root->model_.get();
    if (!model)
        raise<messages::CannotCreateWithoutModel>();
    // Revertible: a failure half-way through a tree takes back what was made.
    transaction_ = model->beginTransaction(/*revertible=*/true);
    if (model->isFrozen())
        raise<messages::ModelFrozen>(); // the dropped transaction rolls back
    if (!root->orchestrator_) {
        root_ = root;
        root->orchestrator_ = this;
    }
}

ModelElement::Builder::Orchestrator::~Orchestrator() { release(); }

void ModelElement::Builder::Orchestrator::addBuilder(Builder *builder) {
    if (builder->orchestrator_)
        return;
    // A lone builder, the common case, never pays for the table.
    if (created_.bucket_count() < 8) {
        created_.max_load_factor(1.0f);
        created_.rehash(8);
    }
    created_.emplace(builder, ModelElement());
    builder->orchestrator_ = this;
}

void ModelElement::Builder::Orchestrator::removeBuilder(Builder *builder) {
    if (builder == root_) {
        root_ = nullptr;
        rootElement_.reset();
        builder->orchestrator_ = nullptr;
    } else if (created_.erase(builder)) {
        builder->orchestrator_ = nullptr;
    }
}

void ModelElement::Builder::Orchestrator::registerCreatedElement(Builder *builder, ModelElement const &element) {
    if (builder == root_)
        rootElement_ = element;
    else
        created_[builder] = element;
}

ModelElement ModelElement::Builder::Orchestrator::getCreatedElement(Builder *builder) const {
    if (builder == root_)
        return rootElement_;
    auto const found = created_.find(builder);
    return found == created_.end() ? ModelElement() : found->second;
}

void ModelElement::Builder::Orchestrator::commit() {
    transaction_.commit();
    release();
}

void ModelElement::Builder::Orchestrator::release() noexcept {
    for (auto &[builder, element] : created_)
        if (builder->orchestrator_ == this)
            builder->orchestrator_ = nullptr;
    created_.clear();
    if (root_ && root_->orchestrator_ == this)
        root_->orchestrator_ = nullptr;
    root_ = nullptr;
    rootElement_.reset();
}

// --- The element's side --------------------------------------------------------------------

ModelElement::Impl::Impl(Builder &builder, boost::uuids::uuid const &uuid) : Impl(builder.model_, uuid) {}

} // namespace kivra
