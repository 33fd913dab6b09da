#include "VersionInfoType.hpp"

#include <library/Shelf.hpp>

#include <kivra/UuidLiteral.hpp>
#include <kivra/meta/AbstractMetaPackage.hpp>
#include <kivra/meta/DataType.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/VersionInfo.hpp>

namespace kivra::test {

namespace {

/// Enters what is missing under the registry's lock, as a description does.
class StandIn : public meta::AbstractMetaPackage {
public:
    StandIn() {
        meta::DataType versionInfo = meta::VersionInfo::dataType();
        if (!versionInfo) {
            versionInfo = meta::DataType::create(model(), parseUuidLiteral("c796e984-6630-3cfb-8a81-a092baf6dced"));
            versionInfo->setName(u"VersionInfo");
        }
        // The library may have been described first, with no type to give.
        if (meta::Property const &sources = library::Shelf::Impl::sourcesProperty(); !sources->getType())
            sources->setType(versionInfo);
        finish();
    }
};

} // namespace

void ensureVersionInfoType() { static StandIn const standIn; }

} // namespace kivra::test
