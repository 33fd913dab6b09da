#include <kivra/meta/DataModelUsageProvider.hpp>

#include <kivra/Messages.hpp>
#include <kivra/ModelConstellation.hpp>
#include <kivra/ModelElement.hpp>

namespace kivra::meta {

std::vector<std::u16string> DataModelUsageProvider::getUsedPackageUris() const {
    // Package URIs are read from the packages once the metamodel describes them; a
    // model without described classes uses none.
    return {};
}

std::vector<ModelElement> DefaultModelUsageProvider::getUsedPackages() const { return {}; }

void DefaultModelUsageProvider::elementCreated(ModelElement::Impl *element) {
    bool const reflective = element->isReflective();
    if (content_ == ModelContent::Undetermined) {
        auto const inferred = reflective ? ModelContent::InferredReflective : ModelContent::InferredReified;
        if (auto *constellation = element->getModelImpl()->constellationImpl(); constellation && constellation->isValid())
            constellation->debug_validateModelContent(inferred);
        content_ = inferred;
    }
    bool const reflectiveModel = content_ == ModelContent::InferredReflective || content_ == ModelContent::DeclaredReflective;
    if (reflective && !reflectiveModel)
        raise<messages::InvalidReflectiveModelContent>();
    if (!reflective && reflectiveModel)
        raise<messages::InvalidReifiedModelContent>();
}

void DefaultModelUsageProvider::allElementsDestroyed() {
    if (content_ != ModelContent::DeclaredReified && content_ != ModelContent::DeclaredReflective)
        content_ = ModelContent::Undetermined;
}

} // namespace kivra::meta
