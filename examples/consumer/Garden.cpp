// Builds a small garden through builders and reads it back typed and reflectively;
// exits non-zero at the first thing that is not as built.
#include <garden/Bed.hpp>
#include <garden/BedConstrainables.hpp>
#include <garden/Gardener.hpp>
#include <garden/GardenerConstrainables.hpp>
#include <garden/Plant.hpp>
#include <garden/PlantConstrainables.hpp>
#include <garden/Tree.hpp>

#include <kivra/Model.hpp>
#include <kivra/Value.hpp>

#include <cstdio>
#include <string_view>
#include <memory>

namespace {

int failures = 0;

void check(bool condition, char const *what) {
    if (!condition) {
        std::fprintf(stderr, "garden: not as built: %s\n", what);
        ++failures;
    }
}

} // namespace

int main() {
    using Tag = kivra::ModelElement::Impl::ReflectionPrivateTag;
    kivra::Model model = kivra::Model::createTransientModel();
    garden::Gardener const ada = garden::Gardener::Builder(model).setName(u"Ada").createGardener();

    auto oak = std::make_unique<garden::Tree::Builder>(model);
    oak->setName(u"oak").setRings(120).setKeeper(ada);
    auto rose = std::make_unique<garden::Plant::Builder>(model);
    rose->setName(u"rose").setNote(basalt::ustring(u"red"));
    garden::Bed::Builder bed(model);
    bed.setName(u"north").addPlants(std::move(oak)).setCentre(std::move(rose)).addVisitors(ada);
    garden::Bed const north = bed.createBed();

    check(north->getPlants().size() == 1, "one plant in the bed");
    garden::Plant const tree = north->getPlants()[0];
    check(tree->getBed() == north, "the tree's bed is its container");
    check(tree->getKeeper() == ada && ada->getFavourite() == tree, "both ends of the keeper");
    check(tree->getHeight() == 0.5, "the default height");
    check(north->getCentre()->getCentreOf() == north, "the centre plant");
    check(north->getVisitors().size() == 1, "one visitor");
    north->getByNameMutable().insert(tree);
    check(tree->getListedIn() == north, "the map's far end");

    kivra::Value const rings = tree->getPropertyValue(garden::Tree::Impl::ringsProperty(), Tag::PUBLIC_ACCESS);
    check(rings.get<std::int32_t>() == 120, "the rings read reflectively");
    tree->setPropertyValue(garden::Plant::Impl::heightProperty(), kivra::Value(2.5), Tag::PUBLIC_ACCESS);
    check(tree->getHeight() == 2.5, "the height written reflectively");
    bool refused = false;
    try {
        north->setPropertyValue(garden::Bed::Impl::codeProperty(), kivra::Value(std::string("N")), Tag::PUBLIC_ACCESS);
    } catch (std::exception const &) {
        refused = true;
    }
    check(refused, "a read-only property refuses reflective writes");
    check(tree->getBlooms() == garden::Season::Summer, "the default literal");
    tree->setPropertyValue(garden::Plant::Impl::bloomsProperty(),
                           kivra::Value(garden::metaEnum(garden::Season{}), std::uint64_t(-1)), Tag::PUBLIC_ACCESS);
    check(tree->getBlooms() == garden::Season::Winter, "a negative literal written reflectively");
    kivra::Value const blooms = tree->getPropertyValue(garden::Plant::Impl::bloomsProperty(), Tag::PUBLIC_ACCESS);
    check(blooms.get<std::uint64_t>() == std::uint64_t(-1) && blooms.getType() == garden::metaEnum(garden::Season{}),
          "the literal read as its sign-extended number, typed by its enum");
    check(std::u16string_view(garden::publicIdentifier(garden::Season::Spring)) == u"SPR", "a public identifier");

    // A typed query over the generated classes records its constraints; its runs come
    // with the engine.
    kivra::query::AbstractQuery query(model);
    garden::Plant::Constrainables plants({query, kivra::query::SearchClassMatchMode::ClassOrSubclass});
    garden::Gardener::Constrainables keepers({query, kivra::query::SearchClassMatchMode::ExactClass});
    query.add(plants.blooms == garden::Season::Winter || plants.name.like(u"ro%"));
    query.add(plants.keeper == keepers);
    query.add((garden::Plant::name() == garden::Gardener::name()).on(plants, keepers));
    query.add(keepers == ada);
    query.sortByProperty(plants.height, kivra::query::SortDirection::Descending);
    bool foreign = false;
    try {
        kivra::query::AbstractQuery other(model);
        garden::Bed::Constrainables beds({other, kivra::query::SearchClassMatchMode::ExactClass});
        query.add(beds.code == "N");
    } catch (std::exception const &) {
        foreign = true;
    }
    check(foreign, "a query refuses the instances of another");

    if (failures == 0)
        std::puts("garden: all as built");
    return failures == 0 ? 0 : 1;
}
