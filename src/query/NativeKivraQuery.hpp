#pragma once
// Not API: the in-memory query engine and what a query records.

#include "query/Constraints.hpp"
#include "query/QuerySorting.hpp"

#include <kivra/Model.hpp>
#include <kivra/query/ReflectiveQuery.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <vector>

namespace kivra::query {

class NativeKivraQuery;

/// One variable of a query: the elements of a class, narrowed by its constraints.
struct SearchInstance {
    meta::Class searchClass;
    SearchClassMatchMode matchMode;
    /// In the order they were added, the class test first.
    std::vector<std::unique_ptr<SingleObjectConstraint>> constraints;
    ModelElement specificElement;
};

class ReflectiveDisjunctionImpl final : public ReflectiveDisjunction {
public:
    /// The group as one constraint of the one instance it touches.
    class SingleObjectDisjunctionConstraint final : public SingleObjectConstraint {
    public:
        explicit SingleObjectDisjunctionConstraint(ReflectiveDisjunctionImpl const *group) : group(group) {}
        bool test(ModelElement::Impl const &element) const override;
        /// The group repeats itself, apart from its instances' constraints.
        void replay(std::size_t, ReflectiveQuery &) const override {}

        ReflectiveDisjunctionImpl const *group;
    };

    explicit ReflectiveDisjunctionImpl(NativeKivraQuery &query) : query(&query) {}
    void addPropertyRelationValue(meta::Property const &property, ValueMatchRelation relation, Value const &value,
                                  std::size_t instance) override;
    void finish() override;

    NativeKivraQuery *query;
    std::vector<std::unique_ptr<SingleObjectConstraintWithDisjunction>> constraints;
    bool finished = false;
    std::set<std::size_t> instances;
};

class NativeKivraQuery final : public RetargetableQuery {
public:
    void clear() override;
    std::size_t addSearchClass(meta::Class const &cls, SearchClassMatchMode mode) override;
    void addPropertyRelationProperty(meta::Property const &a, std::size_t instanceA, ValueMatchRelation relation,
                                     meta::Property const &b, std::size_t instanceB) override;
    void addPropertyRelationValue(meta::Property const &property, ValueMatchRelation relation, Value const &value,
                                  std::size_t instance) override;
    void requireTopLevelElement(std::size_t instance) override;
    void setSpecificElement(ModelElement const &element, std::size_t instance) override;
    void addAssociatedObject(meta::Property const &property, std::size_t holderInstance,
                             std::size_t valueInstance) override;
    ReflectiveDisjunction *createDisjunction() override;
    void setResultLimit(std::size_t limit) override;
    void setResultOffset(std::size_t offset) override;
    void sortByProperty(meta::Property const &property, std::size_t instance, SortDirection direction) override;
    void sortIntrinsic(std::size_t instance, SortDirection direction) override;
    void sortByOrdinal(meta::Property const &property, std::size_t instance, SortDirection direction) override;
    std::vector<ModelElement> getFirstResult() override;
    std::unique_ptr<ResultIterator> execute(std::vector<std::size_t> const &columns) override;
    std::size_t countResults() override;

    void setModel(Model const &model) override { this->model = model; }
    void retarget(ReflectiveQuery &target) const override;
    Model getModel() const override { return model; }

    /// The checked constraint of `addPropertyRelationValue`, for the query or a disjunction.
    std::unique_ptr<PropertyRelationValueConstraint>
    makeValueConstraint(meta::Property const &property, ValueMatchRelation relation, Value const &value,
                        std::size_t instance) const;

    Model model;
    std::vector<SearchInstance> instances;
    /// Join constraints by the sorted ids of the instances they relate.
    std::map<std::vector<std::size_t>, std::vector<std::unique_ptr<JoinConstraint>>> joinGroups;
    std::uint64_t limit = 0;
    std::uint64_t offset = 0;
    std::unique_ptr<QuerySorting> sorting;
    std::vector<std::unique_ptr<ReflectiveDisjunctionImpl>> disjunctions;

    /// What a run looked at: the elements of the table, the (element, instance) pairs whose
    /// constraints ran, and the combinations that joins tested.
    struct RunCounts {
        std::size_t scanned = 0;
        std::size_t tested = 0;
        std::size_t combined = 0;
    };
    /// Runs the query up to its rows of all instances, before the choice of columns.
    ResultSet evaluate(RunCounts *counts = nullptr) const;
    /// Turns off what only saves work (class filter, hashed equality joins), so that a run
    /// does exactly the plain scan and nested loops; the rows must not change.
    bool plainEvaluation = false;

private:
    /// One set per instance, of positions in `elements`, which the scan fills with the
    /// elements that some instance keeps, in the model's table order.
    std::vector<ResultSet> scan(Elements &elements, RunCounts &counts) const;
    void join(Elements const &elements, std::vector<std::size_t> const &ids,
              std::vector<std::unique_ptr<JoinConstraint>> const &group, std::vector<ResultSet> &sets,
              RunCounts &counts) const;
    /// Files a join constraint under its pair of instances, or leaves no trace.
    void fileJoin(std::unique_ptr<JoinConstraint> constraint, std::size_t x, std::size_t y);
    SearchInstance &instanceAt(std::size_t instance);
    SearchInstance const &instanceAt(std::size_t instance) const;
};

} // namespace kivra::query
