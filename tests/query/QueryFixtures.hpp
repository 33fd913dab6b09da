#pragma once
// Elements and properties that the sample metamodel cannot stand for: an element that shows
// one given value for every property, so that comparisons and sorts can be driven by values
// of any type. And what a query recorded, in a form two queries can be compared by.

#include "query/NativeKivraQuery.hpp"

#include <kivra/Model.hpp>
#include <kivra/ModelElement.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/Property.hpp>

#include <basalt/i18n/Unicode.hpp>

#include <boost/uuid/uuid_io.hpp>

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

namespace kivra::test {

/// An element whose every property reads as `value`; given `inPlace`, it also shows that
/// value's payload as its member, the way a generated element shows its fields.
class Reading final : public ModelElement::Impl {
public:
    static ModelElement create(Model const &model, Value value, std::optional<Value> inPlace = std::nullopt) {
        auto *impl = new (model) Reading(model, std::move(value));
        impl->inPlace_ = std::move(inPlace);
        ModelElement element = ModelElement::fromImpl(impl);
        impl->notifyCreated();
        return element;
    }

    meta::Class const &getMetaClass() const override { return ModelElement::metaClass(); }
    Value getPropertyValue(meta::Property const &, ReflectionPrivateTag const &) const override { return value_; }
    void const *nativeValueAddress(meta::Property::Impl const &) const noexcept override {
        return inPlace_ ? inPlace_->getPayload() : nullptr;
    }
    Changes *createChanges() const override { return new Changes(getUuid(), getModelImpl(), getMetaClass(), 0); }
    Storage *createStorage() const override { return new Storage(getUuid(), getModelImpl(), getMetaClass(), 1); }

private:
    Reading(Model const &model, Value value) : ModelElement::Impl(model, {}), value_(std::move(value)) {}
    void doDestroy(bool modelDestroying, bool multiModel) override {
        ModelElement::Impl::doDestroy(modelDestroying, multiModel);
    }

    Value value_;
    std::optional<Value> inPlace_;
};

/// A single-valued property of `type`; `lower` 1 makes it required.
inline meta::Property makeProperty(Model const &model, meta::Type const &type, std::uint32_t lower,
                                   std::uint32_t upper = 1) {
    meta::Property property = meta::Property::create(model);
    property->setName(u"reading");
    property->setType(type);
    property->setLower(lower);
    property->setUpper(upper);
    return property;
}

namespace shape {
using namespace kivra::query;

// What a query recorded, spelt out line by line, so that two queries can be compared.

inline std::string name(meta::Property const &property) {
    return property ? basalt::i18n::ustring_to_utf8(property->getName()) : "-";
}
inline std::string id(std::size_t instance) { return "#" + std::to_string(instance); }
inline std::string rel(query::ValueMatchRelation relation) { return std::string(ValueMatchRelationName(relation)); }

struct Shape {
    std::vector<std::string> lines;
    std::vector<Value> constants;
    std::vector<ValueComparator const *> comparators;

    void constraint(SingleObjectConstraint const &c) {
        if (auto *v = dynamic_cast<PropertyRelationValueConstraint const *>(&c)) {
            lines.push_back("  " + name(v->property) + " " + rel(v->relation) + " const " + id(v->instance));
            constants.push_back(v->constant);
            comparators.push_back(v->comparator);
        } else if (auto *p = dynamic_cast<PropertyRelationPropertySingleObjectConstraint const *>(&c)) {
            lines.push_back("  " + name(p->propertyA) + " " + rel(p->relation) + " " + name(p->propertyB));
            comparators.push_back(p->comparator);
        } else {
            lines.push_back(std::string("  ") + typeid(c).name());
        }
    }
    void join(JoinConstraint const &c) {
        if (auto *a = dynamic_cast<AssociatedObjectConstraint const *>(&c)) {
            lines.push_back("  " + name(a->property) + " of " + id(a->holderInstance) + " holds " + id(a->valueInstance));
        } else if (auto *p = dynamic_cast<PropertyRelationPropertyJoinConstraint const *>(&c)) {
            lines.push_back("  " + name(p->propertyA) + " " + id(p->instanceA) + " " + rel(p->relation) + " " +
                            name(p->propertyB) + " " + id(p->instanceB));
            comparators.push_back(p->comparator);
        }
    }
};

inline Shape shapeOf(NativeKivraQuery const &query) {
    Shape shape;
    for (std::size_t i = 0; i < query.instances.size(); ++i) {
        SearchInstance const &instance = query.instances[i];
        shape.lines.push_back("instance " + id(i) + " " +
                              basalt::i18n::ustring_to_utf8(instance.searchClass->getQualifiedName()) + " mode " +
                              std::to_string(static_cast<int>(instance.matchMode)));
        if (instance.specificElement)
            shape.lines.push_back("  element " + boost::uuids::to_string(instance.specificElement->getUuid()));
        for (auto const &constraint : instance.constraints)
            shape.constraint(*constraint);
    }
    for (auto const &[ids, group] : query.joinGroups) {
        shape.lines.push_back("join " + id(ids.front()) + " " + id(ids.back()));
        for (auto const &constraint : group)
            shape.join(*constraint);
    }
    for (auto const &disjunction : query.disjunctions) {
        shape.lines.push_back(std::string("or") + (disjunction->finished ? " finished" : "") + " over " +
                              std::to_string(disjunction->instances.size()));
        for (auto const &constraint : disjunction->constraints)
            shape.constraint(*constraint);
    }
    shape.lines.push_back("limit " + std::to_string(query.limit) + " offset " + std::to_string(query.offset));
    if (auto const *sorting = query.sorting.get()) {
        meta::Property property;
        if (auto *by = dynamic_cast<ByPropertySorting const *>(sorting))
            property = by->property;
        if (auto *by = dynamic_cast<ByOrdinalSorting const *>(sorting))
            property = by->property;
        shape.lines.push_back(std::string("sort ") + typeid(*sorting).name() + " " + name(property) + " " +
                              id(sorting->instance) + " " + std::to_string(static_cast<int>(sorting->direction)));
    }
    return shape;
}

inline void expectSameQuery(NativeKivraQuery const &typed, NativeKivraQuery const &reflective) {
    Shape const a = shapeOf(typed);
    Shape const b = shapeOf(reflective);
    EXPECT_EQ(a.lines, b.lines);
    EXPECT_EQ(a.comparators, b.comparators);
    ASSERT_EQ(a.constants.size(), b.constants.size());
    for (std::size_t i = 0; i < a.constants.size(); ++i)
        EXPECT_TRUE(a.constants[i] == b.constants[i]) << "constant " << i;
}

} // namespace shape

using shape::expectSameQuery;

} // namespace kivra::test
