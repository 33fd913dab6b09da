#include <kivra/services/ElementIdResolver.hpp>
#include <kivra/services/ModelIdNormalizer.hpp>

#include <kivra/Model.hpp>
#include <kivra/ModelElement.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/services/Hashers.hpp>

#include <map>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace kivra::services {

namespace {

struct NormalizerTable {
    std::mutex mutex;
    // Asked from the highest priority down, and among equal ones from the last added.
    std::multimap<int, std::shared_ptr<ModelIdNormalizer>, std::greater<>> normalizers;
};

NormalizerTable &normalizerTable() {
    static auto *table = new NormalizerTable; // services live until the process ends
    return *table;
}

std::vector<std::shared_ptr<ModelIdNormalizer>> normalizers() {
    auto &table = normalizerTable();
    std::lock_guard lock(table.mutex);
    std::vector<std::shared_ptr<ModelIdNormalizer>> result;
    for (auto const &entry : table.normalizers)
        result.push_back(entry.second);
    return result;
}

struct ResolverTable {
    std::mutex mutex;
    std::unordered_multimap<basalt::ustring, std::shared_ptr<ElementIdResolver>, hashers::KivraHasher<basalt::ustring>>
        resolvers;
};

ResolverTable &resolverTable() {
    static auto *table = new ResolverTable;
    return *table;
}

} // namespace

void registerModelIdNormalizer(std::shared_ptr<ModelIdNormalizer> normalizer, int priority) {
    auto &table = normalizerTable();
    std::lock_guard lock(table.mutex);
    // In front of those of the same priority: the last added is asked first.
    table.normalizers.emplace_hint(table.normalizers.lower_bound(priority), priority, std::move(normalizer));
}

basalt::ustring ModelIdNormalizer::convertToLocationModelId(basalt::ustring const &id) {
    for (auto const &normalizer : normalizers())
        if (auto answer = normalizer->toLocationModelId(id))
            return *answer;
    return id;
}

basalt::ustring ModelIdNormalizer::convertToExternalModelId(basalt::ustring const &id) {
    for (auto const &normalizer : normalizers())
        if (auto answer = normalizer->toExternalModelId(id))
            return *answer;
    return id;
}

Model ModelIdNormalizer::load(basalt::ustring const &id, ModelLoadOptions const &options) {
    basalt::ustring const location = convertToLocationModelId(id);
    for (auto const &normalizer : normalizers())
        if (Model model = normalizer->loadModel(location, options))
            return model;
    return {};
}

void ModelIdNormalizer::save(Model const &model, basalt::ustring const &id, SaveModelMode mode) {
    for (auto const &normalizer : normalizers())
        if (normalizer->saveModel(model, id, mode))
            return;
}

void registerElementIdResolver(basalt::ustring const &identifierType, std::shared_ptr<ElementIdResolver> resolver) {
    auto &table = resolverTable();
    std::lock_guard lock(table.mutex);
    table.resolvers.emplace(identifierType, std::move(resolver));
}

ModelElement ElementIdResolver::doFindElement(Model const &model, meta::Class const &cls, io::ElementId const &id) {
    if (id.getIdentifierType() == io::ElementId::DEFAULT_IDENTIFIER_TYPE) {
        auto const uuid = id.getUuid();
        if (!uuid)
            return {};
        ModelElement element = model->findElement(*uuid, FindElementBehavior::InMemoryOnly);
        // An attached data source would be asked here, unless the element was destroyed
        // in the transaction in progress.
        if (element && element->getMetaClass() == cls)
            return element;
        return {};
    }
    std::vector<std::shared_ptr<ElementIdResolver>> candidates;
    {
        auto &table = resolverTable();
        std::lock_guard lock(table.mutex);
        auto const [first, last] = table.resolvers.equal_range(id.getIdentifierType());
        for (auto entry = first; entry != last; ++entry)
            candidates.push_back(entry->second);
    }
    for (auto const &resolver : candidates)
        if (ModelElement element = resolver->resolve(model, cls, id))
            return element;
    return {};
}

} // namespace kivra::services
