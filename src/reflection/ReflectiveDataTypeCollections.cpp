#include "reflection/ReflectiveDataTypeCollections.hpp"

#include <kivra/Messages.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/DataType.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/reflection/ReflectiveDataType.hpp>

#include <algorithm>
#include <vector>

namespace kivra::reflection::detail {

namespace {

class DataTypeSequence final : public AbstractPrimitiveCollection, public GenericPrimitiveSequenceInterface {
public:
    DataTypeSequence(ModelElement::Impl *owner, meta::Property const &property)
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
        for (ReflectiveDataType const &record : container_)
            values.push_back(Value::createReflectiveDataTypeValue(record));
        return values;
    }
    GenericPrimitiveInterface *getGenericInterface() const override { return const_cast<DataTypeSequence *>(this); }

    void genericAdd(Value const &value) override {
        ReflectiveDataType record = entryOf(value);
        change([&] { container_.push_back(std::move(record)); });
    }
    void genericRemove(Value const &value) override {
        ReflectiveDataType const record = entryOf(value);
        auto const found = std::find(container_.begin(), container_.end(), record);
        if (found != container_.end())
            change([&] { container_.erase(found); });
    }
    Value genericAt(std::size_t index) const override {
        return Value::createReflectiveDataTypeValue(container_.at(checked(index, 0)));
    }
    void genericInsert(Value const &value, std::size_t index) override {
        ReflectiveDataType record = entryOf(value);
        checked(index, 1);
        change([&] { container_.insert(container_.begin() + std::ptrdiff_t(index), std::move(record)); });
    }
    void genericReplace(Value const &value, std::size_t index) override {
        ReflectiveDataType record = entryOf(value);
        checked(index, 0);
        change([&] { container_[index] = std::move(record); });
    }
    void genericRemoveAt(std::size_t index) override {
        checked(index, 0);
        change([&] { container_.erase(container_.begin() + std::ptrdiff_t(index)); });
    }
    std::int64_t genericIndexOf(Value const &value) const override {
        ReflectiveDataType const record = entryOf(value);
        auto const found = std::find(container_.begin(), container_.end(), record);
        return found == container_.end() ? -1 : std::int64_t(found - container_.begin());
    }

protected:
    Kind getKind() const override { return Kind::Sequence; }
    void copyContents(AbstractOwnedCollection const &other) override {
        change([&] {
            if (&other != this)
                container_ = static_cast<DataTypeSequence const &>(other).container_;
        });
    }

private:
    // A single value of the very entry type, in either form; a subtype or a collection
    // does not pass.
    ReflectiveDataType entryOf(Value const &value) const {
        if (isCollection(value.getFlags()) || value.getType() != entryType_)
            raise<messages::CannotCastIncompatibleTypes>(entryType_->getQualifiedName());
        return value.toReflectiveDataType();
    }
    std::size_t checked(std::size_t index, std::size_t slack) const {
        if (index >= container_.size() + slack)
            raise<messages::InvalidValue>();
        return index;
    }
    // One change of the property, in a transaction of its own when none is open.
    template <class F> void change(F &&apply) {
        Operation operation(*this);
        modifying();
        apply();
        operation.commit();
    }

    meta::Type entryType_;
    std::vector<ReflectiveDataType> container_;
};

} // namespace

std::unique_ptr<AbstractPrimitiveCollection> makeDataTypeCollection(ModelElement::Impl *owner,
                                                                    meta::Property const &property) {
    return std::unique_ptr<AbstractPrimitiveCollection>(new (owner) DataTypeSequence(owner, property));
}

} // namespace kivra::reflection::detail
