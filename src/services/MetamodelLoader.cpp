#include <kivra/services/MetamodelLoader.hpp>

namespace kivra::services {

// No bundle container is searched yet, so no bundle declares a family or a type: both
// loads find nothing, which is their answer for an undeclared name.
void MetamodelLoader::loadFamily(basalt::ustring const &) {}

void MetamodelLoader::loadType(basalt::ustring const &) {}

} // namespace kivra::services
