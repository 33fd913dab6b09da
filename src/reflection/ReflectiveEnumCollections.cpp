#include "reflection/ReflectiveEnumCollections.hpp"

#include <kivra/Messages.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Enum.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/StandardTypes.hpp>

#include <boost/container/flat_set.hpp>

#include <algorithm>
#include <unordered_set>
#include <vector>

namespace kivra::reflection::detail {

namespace {

// The number a written value carries: a single value of any enumeration, or of
// `UInteger64`; no content reads as 0.
std::uint64_t readNumber(Value const &value) {
    meta::Type const &type = value.getType();
    if (value.getFlags() != ValueFlags::Single ||
        (type != meta::Type(meta::StandardTypes::uinteger64Meta) && !internal::isEnumType(type)))
        raise<messages::CannotCastIncompatibleTypes>(type ? type->getQualifiedName() : basalt::ustring());
    return value.hasPayload() ? value.get<std::uint64_t>() : 0;
}

template <class C> class EnumCollection : public AbstractPrimitiveCollection {
public:
    EnumCollection(ModelElement::Impl *owner, meta::Property const &property)
        : AbstractPrimitiveCollection(owner, owner ? property.get() : nullptr), entryType_(property->getType()) {}

    meta::Type getCollectionType() const override { return entryType_; }
    bool empty() const override { return container_.empty(); }
    std::uint64_t size() const override { return container_.size(); }
    void clear() override {
        change([&] { container_.clear(); });
    }
    std::vector<Value> getAllValues() const override {
        std::vector<Value> values;
        values.reserve(container_.size());
        for (std::uint64_t number : container_)
            values.push_back(valueOf(number));
        return values;
    }

protected:
    Value valueOf(std::uint64_t number) const { return Value(entryType_, number); }
    void copyContents(AbstractOwnedCollection const &other) override {
        change([&] {
            if (&other != this)
                container_ = static_cast<EnumCollection const &>(other).container_;
        });
    }
    // One change of the property, in a transaction of its own when none is open.
    template <class F> void change(F &&apply) {
        Operation operation(*this);
        modifying();
        apply();
        operation.commit();
    }

    meta::Type entryType_;
    C container_;
};

class EnumSequence final : public EnumCollection<std::vector<std::uint64_t>>, public GenericPrimitiveSequenceInterface {
public:
    EnumSequence(ModelElement::Impl *owner, meta::Property const &property)
        : EnumCollection(owner, property), unique_(property->getIsUnique()) {}

    void genericAdd(Value const &value) override {
        std::uint64_t const number = readNumber(value);
        if (!turnsAway(number))
            change([&] { container_.push_back(number); });
    }
    void genericRemove(Value const &value) override {
        auto const found = std::find(container_.begin(), container_.end(), readNumber(value));
        if (found != container_.end())
            change([&] { container_.erase(found); });
    }
    GenericPrimitiveInterface *getGenericInterface() const override {
        return const_cast<EnumSequence *>(this);
    }

    Value genericAt(std::size_t index) const override { return valueOf(container_.at(checked(index, 0))); }
    void genericInsert(Value const &value, std::size_t index) override {
        std::uint64_t const number = readNumber(value);
        checked(index, 1);
        if (!turnsAway(number))
            change([&] { container_.insert(container_.begin() + std::ptrdiff_t(index), number); });
    }
    void genericReplace(Value const &value, std::size_t index) override {
        std::uint64_t const number = readNumber(value);
        checked(index, 0);
        // Also a literal already at `index`: a unique sequence makes no change of it.
        if (!turnsAway(number))
            change([&] { container_[index] = number; });
    }
    void genericRemoveAt(std::size_t index) override {
        checked(index, 0);
        change([&] { container_.erase(container_.begin() + std::ptrdiff_t(index)); });
    }
    std::int64_t genericIndexOf(Value const &value) const override {
        auto const found = std::find(container_.begin(), container_.end(), readNumber(value));
        return found == container_.end() ? -1 : std::int64_t(found - container_.begin());
    }

protected:
    Kind getKind() const override { return Kind::Sequence; }

private:
    // A unique sequence turns away, without an error, a literal it holds already.
    bool turnsAway(std::uint64_t number) const {
        return unique_ && std::find(container_.begin(), container_.end(), number) != container_.end();
    }
    // An index past the entries, or past the end for an insert, is refused.
    std::size_t checked(std::size_t index, std::size_t slack) const {
        if (index >= container_.size() + slack)
            raise<messages::InvalidValue>();
        return index;
    }

    bool unique_;
};

template <class C> class EnumSet final : public EnumCollection<C> {
public:
    using EnumCollection<C>::EnumCollection;

    // As with every set of plain values, adds and removes count as a change also when
    // the set stays as it was.
    void genericAdd(Value const &value) override {
        std::uint64_t const number = readNumber(value);
        this->change([&] { this->container_.insert(number); });
    }
    void genericRemove(Value const &value) override {
        std::uint64_t const number = readNumber(value);
        this->change([&] { this->container_.erase(number); });
    }

protected:
    AbstractPrimitiveCollection::Kind getKind() const override { return AbstractPrimitiveCollection::Kind::Set; }
};

} // namespace

std::unique_ptr<AbstractPrimitiveCollection> makeEnumCollection(ModelElement::Impl *owner,
                                                                meta::Property const &property) {
    if (property->getIsOrdered())
        return std::unique_ptr<AbstractPrimitiveCollection>(new (owner) EnumSequence(owner, property));
    if (property->getIsHashed())
        return std::unique_ptr<AbstractPrimitiveCollection>(
            new (owner) EnumSet<std::unordered_set<std::uint64_t>>(owner, property));
    return std::unique_ptr<AbstractPrimitiveCollection>(
        new (owner) EnumSet<boost::container::flat_set<std::uint64_t>>(owner, property));
}

} // namespace kivra::reflection::detail
