// One suite of behaviour through reflective access, run over the generated library and
// over its twin described at run time: both must give the same results.

#include <Flavours.hpp>

#include <ModelSnapshot.hpp>

#include <kivra/ElementId.hpp>
#include <kivra/Listener.hpp>
#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/ReportData.hpp>
#include <kivra/StringToStringMap.hpp>
#include <kivra/ModelConstellation.hpp>
#include <kivra/Transaction.hpp>
#include <kivra/meta/DataType.hpp>
#include <kivra/reflection/ReflectiveDataType.hpp>

#include <boost/optional/optional.hpp>

#include <gtest/gtest.h>

#include <random>

namespace kivra::test {
namespace {

class LibraryBehaviour : public ::testing::TestWithParam<Flavour const *> {
protected:
    Flavour const &lib() const { return *GetParam(); }
    ModelElement make(meta::Class const &cls) { return cls->instantiate(model); }
    ModelElement book(std::u16string_view title) {
        ModelElement made = make(lib().book);
        set(made, u"title", text(title));
        return made;
    }

    Model model = Model::createTransientModel();
};

TEST_P(LibraryBehaviour, PlainValuesStartAtTheirDefaultsAndTakeOnlyTheirOwnType) {
    ModelElement const dune = make(lib().book);
    ASSERT_TRUE(dune);
    EXPECT_EQ(get(dune, u"pages").get<std::int32_t>(), 100);
    EXPECT_FALSE(get(dune, u"subtitle").hasPayload());
    EXPECT_FALSE(dune->hasPropertyValue(prop(dune, u"subtitle"), Access::PUBLIC_ACCESS));

    set(dune, u"title", text(u"Dune"));
    set(dune, u"subtitle", Value(meta::Type(prop(dune, u"subtitle")->getType()), basalt::ustring(u"Book one")));
    EXPECT_EQ(get(dune, u"title").get<basalt::ustring>(), u"Dune");
    EXPECT_EQ(get(dune, u"subtitle").get<basalt::ustring>(), u"Book one");
    EXPECT_TRUE(dune->hasPropertyValue(prop(dune, u"subtitle"), Access::PUBLIC_ACCESS));

    EXPECT_THROW(set(dune, u"title", Value(std::int32_t(7))), Error<messages::CannotCastIncompatibleTypes>);
    EXPECT_EQ(get(dune, u"title").get<basalt::ustring>(), u"Dune");

    // A property without public accessor or mutator exists for the library's code only.
    EXPECT_THROW(get(dune, u"isbn"), Error<messages::NoSuchProperty>);
    EXPECT_THROW(set(dune, u"isbn", Value(std::string("978"))), Error<messages::NoSuchProperty>);
    set(dune, u"isbn", Value(prop(dune, u"isbn")->getType(), std::string("978")), Access::PRIVILEGED_ACCESS);
    EXPECT_EQ(get(dune, u"isbn", Access::PRIVILEGED_ACCESS).get<std::string>(), "978");

    ModelElement const shelf = make(lib().shelf);
    EXPECT_THROW(get(shelf, u"title"), Error<messages::NoSuchProperty>);
    // A book's title has the index of a shelf's label: the index finds a candidate, not
    // the answer.
    meta::Property const title = prop(dune, u"title");
    ASSERT_EQ(title->getPropertyIndex(), prop(shelf, u"label")->getPropertyIndex());
    set(shelf, u"label", text(u"Fiction"));
    EXPECT_THROW(shelf->getPropertyValue(title, Access::PUBLIC_ACCESS), Error<messages::NoSuchProperty>);
    EXPECT_THROW(shelf->hasPropertyValue(title, Access::PUBLIC_ACCESS), Error<messages::NoSuchProperty>);
    EXPECT_THROW(shelf->setPropertyValue(title, text(u"Dune"), Access::PUBLIC_ACCESS), Error<messages::NoSuchProperty>);
    EXPECT_EQ(get(shelf, u"label").get<basalt::ustring>(), u"Fiction");
}

TEST_P(LibraryBehaviour, AnEqualValueOpensNoTransaction) {
    ModelElement const dune = book(u"Dune");
    // A frozen model refuses every transaction, so an equal write must not open one.
    auto const freezer = model->freeze();
    set(dune, u"title", text(u"Dune"));
    set(dune, u"author", ref(ModelElement()));
    EXPECT_THROW(set(dune, u"title", text(u"Emma")), Error<messages::ModelFrozen>);
}

TEST_P(LibraryBehaviour, SingleReferencesKeepBothEnds) {
    ModelElement const dune = book(u"Dune"), emma = book(u"Emma");
    ModelElement const frank = make(lib().author);
    set(dune, u"author", ref(frank));
    EXPECT_EQ(element(frank, u"favourite"), dune);

    // The far end takes the new partner; the one it had lets go.
    set(emma, u"author", ref(frank));
    EXPECT_EQ(element(frank, u"favourite"), emma);
    EXPECT_FALSE(element(dune, u"author"));

    set(frank, u"favourite", ref(ModelElement()));
    EXPECT_FALSE(element(emma, u"author"));
    EXPECT_THROW(set(dune, u"author", ref(emma)), Error<messages::CannotCastIncompatibleTypes>);
}

TEST_P(LibraryBehaviour, ContainmentMovesAChildBetweenItsContainers) {
    ModelElement const dune = book(u"Dune"), notes = book(u"Notes");
    ModelElement const shelf = make(lib().shelf), other = make(lib().shelf);
    set(shelf, u"featured", ref(dune));
    EXPECT_EQ(element(dune, u"shelf"), shelf);
    EXPECT_EQ(dune->container(), shelf);

    // From the child's end: the old container forgets it.
    set(dune, u"shelf", ref(other));
    EXPECT_FALSE(element(shelf, u"featured"));
    EXPECT_EQ(element(other, u"featured"), dune);

    // Into a collection of another feature: the container end reads empty.
    many(shelf, u"books").genericAdd(dune);
    EXPECT_EQ(dune->container(), shelf);
    EXPECT_FALSE(element(other, u"featured"));
    EXPECT_FALSE(element(dune, u"shelf"));

    set(dune, u"appendix", ref(notes));
    EXPECT_EQ(element(notes, u"appendixOf"), dune);
    EXPECT_THROW(set(notes, u"appendix", ref(dune)), Error<messages::CircularContainment>);
    EXPECT_THROW(set(dune, u"appendixOf", ref(notes)), Error<messages::CircularContainment>);
    EXPECT_EQ(notes->container(), dune);
}

TEST_P(LibraryBehaviour, OnlyALiveElementOfTheSameModelBecomesContainerOrChild) {
    // Models of a constellation, so that a reference between them is allowed and only
    // containment refuses to cross.
    ModelConstellation const constellation = ModelConstellation::create();
    Model const here = Model::create(constellation), there = Model::create(constellation);
    ModelElement const dune = lib().book->instantiate(here), shelf = lib().shelf->instantiate(here);
    ModelElement const gone = lib().book->instantiate(here), goneShelf = lib().shelf->instantiate(here);
    gone->destroy();
    goneShelf->destroy();
    ProxyId const id(u"uuid", u"5eed0000-0000-3000-8000-00000000beef", boost::none);
    ModelElement const proxyShelf = ModelElement::createProxy(here, lib().shelf, id);
    ModelElement const proxyBook = ModelElement::createProxy(here, lib().book, id);
    ModelElement const farShelf = lib().shelf->instantiate(there), farBook = lib().book->instantiate(there);

    // The element's end of a composite.
    EXPECT_THROW(set(dune, u"shelf", ref(goneShelf)), Error<messages::InvalidValue>);
    EXPECT_THROW(set(dune, u"shelf", ref(proxyShelf)), Error<messages::InvalidValue>);
    EXPECT_THROW(set(dune, u"shelf", ref(farShelf)), Error<messages::CannotChangeModel>);
    EXPECT_THROW(set(dune, u"appendixOf", ref(farBook)), Error<messages::CannotChangeModel>);
    EXPECT_TRUE(dune->isTopLevel());

    // The container's end.
    EXPECT_THROW(set(shelf, u"featured", ref(gone)), Error<messages::InvalidValue>);
    EXPECT_THROW(set(dune, u"appendix", ref(gone)), Error<messages::InvalidValue>);
    EXPECT_THROW(set(shelf, u"featured", ref(farBook)), Error<messages::CannotChangeModel>);
    EXPECT_FALSE(element(shelf, u"featured"));
    EXPECT_FALSE(element(dune, u"appendix"));
    EXPECT_TRUE(farBook->isTopLevel());
    // A composite collection, of each shape, as the single end.
    ModelElement const writer = lib().author->instantiate(here);
    EXPECT_THROW(many(shelf, u"books").genericAdd(gone), Error<messages::InvalidValue>);
    EXPECT_THROW(many(dune, u"chapters").genericAdd(gone), Error<messages::InvalidValue>);
    EXPECT_THROW(many(writer, u"drafts").genericAdd(gone), Error<messages::InvalidValue>);
    EXPECT_THROW(many(shelf, u"books").genericAdd(farBook), Error<messages::CannotChangeModel>);
    EXPECT_EQ(many(shelf, u"books").genericSize() + many(dune, u"chapters").genericSize() +
                  many(writer, u"drafts").genericSize(),
              0u);
    // A proxy child of this model stands for an element the container holds once it
    // resolves.
    set(shelf, u"featured", ref(proxyBook));
    EXPECT_EQ(element(shelf, u"featured"), proxyBook);

    // Both still work with a live element of the model.
    set(dune, u"shelf", ref(shelf));
    EXPECT_EQ(element(shelf, u"featured"), dune);
}

TEST_P(LibraryBehaviour, CollectionsWithOppositesKeepBothEnds) {
    ModelElement const dune = book(u"Dune"), emma = book(u"Emma");
    ModelElement const frank = make(lib().author), jane = make(lib().author);
    many(frank, u"books").genericAdd(dune);
    many(frank, u"books").genericAdd(emma);
    EXPECT_EQ(element(dune, u"writer"), frank);
    EXPECT_EQ(many(frank, u"books").genericSize(), 2u);

    set(dune, u"writer", ref(jane));
    EXPECT_FALSE(many(frank, u"books").genericContains(dune));
    EXPECT_TRUE(many(jane, u"books").genericContains(dune));

    many(dune, u"coauthors").genericAdd(frank);
    EXPECT_TRUE(many(frank, u"coauthored").genericContains(dune));
    many(frank, u"coauthored").genericRemove(dune);
    EXPECT_FALSE(many(dune, u"coauthors").genericContains(frank));
}

TEST_P(LibraryBehaviour, AKeyThatChangesMovesItsElementInTheMap) {
    ModelElement const dune = book(u"Dune"), emma = book(u"Emma"), twin = book(u"Dune");
    ModelElement const shelf = make(lib().shelf);
    auto &catalogue = static_cast<GenericMapInterface &>(many(shelf, u"catalogue"));
    catalogue.genericAdd(dune);
    catalogue.genericAdd(emma);
    EXPECT_EQ(element(dune, u"catalogued"), shelf);
    EXPECT_THROW(catalogue.genericAdd(twin), Error<messages::UniquenessConstraint>);
    // From the single-valued end the key is taken as well: refused, and neither end changes.
    EXPECT_THROW(set(twin, u"catalogued", ref(shelf)), Error<messages::UniquenessConstraint>);
    EXPECT_FALSE(element(twin, u"catalogued"));
    EXPECT_EQ(catalogue.genericAt(text(u"Dune")), dune);

    EXPECT_THROW(set(emma, u"title", text(u"Dune")), Error<messages::UniquenessConstraint>);
    EXPECT_EQ(get(emma, u"title").get<basalt::ustring>(), u"Emma");
    EXPECT_EQ(catalogue.genericAt(text(u"Emma")), emma);

    set(emma, u"title", text(u"Fire"));
    EXPECT_FALSE(catalogue.genericAt(text(u"Emma")));
    EXPECT_EQ(catalogue.genericAt(text(u"Fire")), emma);
    EXPECT_EQ(catalogue.genericSize(), 2u);

    // A roll-back puts the element back under its old key, which random work cannot see.
    {
        Transaction transaction = model->beginTransaction(/*revertible=*/true);
        set(emma, u"title", text(u"Persuasion"));
        set(emma, u"title", text(u"Sanditon"));
        transaction.rollBack();
    }
    EXPECT_EQ(catalogue.genericAt(text(u"Fire")), emma);
    EXPECT_FALSE(catalogue.genericAt(text(u"Sanditon")));
}

TEST_P(LibraryBehaviour, AHashedQualifiedPropertyReportsItsShape) {
    ModelElement const frank = make(lib().author);
    EXPECT_EQ(get(frank, u"drafts").getFlags(), ValueFlags::HashMultimap);
    EXPECT_EQ(get(frank, u"books").getFlags(), ValueFlags::Sequence);
}

TEST_P(LibraryBehaviour, DestroyTakesTheSubtreeAndTheFarEnds) {
    ModelElement const dune = book(u"Dune"), notes = book(u"Notes");
    ModelElement const frank = make(lib().author), shelf = make(lib().shelf);
    set(dune, u"appendix", ref(notes));
    set(dune, u"author", ref(frank));
    many(frank, u"books").genericAdd(dune);
    many(shelf, u"books").genericAdd(dune);
    dune->destroy();
    EXPECT_FALSE(dune);
    EXPECT_FALSE(notes);
    EXPECT_FALSE(element(frank, u"favourite"));
    EXPECT_EQ(many(frank, u"books").genericSize(), 0u);
    EXPECT_EQ(many(shelf, u"books").genericSize(), 0u);
}

TEST_P(LibraryBehaviour, AMapOfTextsIsTheElementsOwnAndRollsBack) {
    ModelElement const shelf = make(lib().shelf);
    meta::Property const labelsProperty = prop(shelf, u"labels");
    EXPECT_FALSE(shelf->hasPropertyValue(labelsProperty, Access::PUBLIC_ACCESS));
    // The value read is a view of the element's own map: changes through it stay.
    StringToStringMap &labels = StringToStringMap::fromValue(get(shelf, u"labels"));
    labels.insert(u"colour", u"red", CollisionResolution::Fail);
    EXPECT_TRUE(shelf->hasPropertyValue(labelsProperty, Access::PUBLIC_ACCESS));
    EXPECT_EQ(&StringToStringMap::fromValue(get(shelf, u"labels")), &labels);

    // A write takes the entries of another map.
    StringToStringMap given;
    given.insert(u"size", u"large", CollisionResolution::Fail);
    set(shelf, u"labels", given.toValue());
    EXPECT_EQ(labels.toSTLCollection(), given.toSTLCollection());
    EXPECT_THROW(set(shelf, u"labels", text(u"size")), Error<messages::CannotCastIncompatibleTypes>);

    ModelElement const bare = make(lib().shelf);
    {
        Transaction transaction = model->beginTransaction(/*revertible=*/true);
        labels.insert(u"colour", u"blue", CollisionResolution::Fail);
        labels.erase(u"size");
        set(bare, u"labels", given.toValue());
        transaction.rollBack();
    }
    EXPECT_EQ(labels.toSTLCollection(), given.toSTLCollection());
    EXPECT_FALSE(bare->hasPropertyValue(labelsProperty, Access::PUBLIC_ACCESS));
}

TEST_P(LibraryBehaviour, AnElementDestroyedInACommittedRevertibleTransactionLetsGoQuietly) {
    struct Committed : Listener {
        int count = 0;
        void transactionCommitted(std::shared_ptr<ReportData> const &) { ++count; }
    } committed;
    ModelElement const dune = book(u"Dune"), notes = book(u"Notes");
    ModelElement const frank = make(lib().author), shelf = make(lib().shelf);
    many(frank, u"books").genericAdd(dune);
    many(dune, u"coauthors").genericAdd(frank);
    many(dune, u"chapters").genericAdd(notes);
    many(shelf, u"recommended").genericAdd(dune);
    addListener<ListenerRole::Observer>(model, committed);
    {
        // The records let the dead element go when the transaction ends, when no change
        // may be announced any more.
        Transaction transaction = model->beginTransaction(/*revertible=*/true);
        dune->destroy();
        shelf->destroy();
        EXPECT_EQ(transaction.commit(), TransactionResult::Committed);
    }
    removeListener(model, committed);
    EXPECT_EQ(committed.count, 1);
    EXPECT_FALSE(dune);
    EXPECT_FALSE(notes);
    EXPECT_EQ(many(frank, u"books").genericSize(), 0u);
    EXPECT_EQ(many(frank, u"coauthored").genericSize(), 0u);
}

// Random reflective work in a revertible transaction: whatever it did, the roll-back
// gives back the very model, object for object.
class RandomReflectiveWork {
public:
    RandomReflectiveWork(Model model, Flavour const &lib, unsigned seed) : model_(std::move(model)), lib_(lib), random_(seed) {}

    void step() {
        ModelElement const a = pick(), b = chance(4) ? ModelElement() : pick();
        if (!a)
            return create();
        static char16_t const *const references[] = {u"author", u"favourite", u"sequel", u"shelf", u"featured",
                                                     u"appendix", u"appendixOf", u"writer", u"catalogued", u"chapterOf"};
        static char16_t const *const collections[] = {u"books", u"coauthors", u"coauthored", u"catalogue",
                                                      u"chapters", u"recommended"};
        try {
            switch (random_() % 9) {
            case 0: create(); break;
            case 1: if (prop(a, u"title")) set(a, u"title", text(std::u16string(1, char16_t(u'a' + random_() % 5)))); break;
            case 2: if (prop(a, u"pages")) set(a, u"pages", Value(std::int32_t(random_() % 5))); break;
            case 3:
            case 4: {
                char16_t const *name = references[random_() % std::size(references)];
                if (prop(a, name))
                    set(a, name, ref(b));
                break;
            }
            case 5:
            case 6: {
                char16_t const *name = collections[random_() % std::size(collections)];
                if (prop(a, name) && b) {
                    if (chance(3))
                        many(a, name).genericRemove(b);
                    else
                        many(a, name).genericAdd(b);
                }
                break;
            }
            case 7:
                if (prop(a, u"edition")) {
                    // Either form of the data type: the generated one where it has one.
                    reflection::ReflectiveDataType record = get(a, u"edition").toReflectiveDataType();
                    record.setPropertyValue(record.getMetaType()->getPropertyByName(u"number"),
                                            Value(std::int32_t(random_() % 3)));
                    boost::optional<Value> const generated = record.toNonReflectiveDataTypeValue();
                    set(a, u"edition", generated ? *generated : Value::createReflectiveDataTypeValue(std::move(record)));
                }
                break;
            default: if (chance(3)) a->destroy(); break;
            }
        } catch (std::exception const &) {
            // Refused changes (wrong class, taken key, cycle) are part of the work.
        }
    }

private:
    ModelElement pick() {
        std::vector<ModelElement> all = model_->getAllElements();
        if (all.empty())
            return {};
        std::sort(all.begin(), all.end(), [](auto const &x, auto const &y) { return x->getUuid() < y->getUuid(); });
        return all[random_() % all.size()];
    }
    bool chance(unsigned n) { return random_() % n == 0; }
    void create() {
        meta::Class const *classes[] = {&lib_.book, &lib_.novel, &lib_.shelf, &lib_.author};
        ModelElement made = (*classes[random_() % 4])->instantiate(model_);
        if (prop(made, u"title"))
            set(made, u"title", text(std::u16string(1, char16_t(u'a' + random_() % 5))));
    }

    Model model_;
    Flavour const &lib_;
    std::mt19937 random_;
};

TEST_P(LibraryBehaviour, RandomWorkRollsBackExactly) {
    for (unsigned seed = 1; seed <= 40; ++seed) {
        Model fresh = Model::createTransientModel();
        RandomReflectiveWork work(fresh, lib(), seed);
        for (int i = 0; i < 30; ++i)
            work.step();
        ModelSnapshot const before = snapshot(fresh, Identity::Object);
        {
            Transaction transaction = fresh->beginTransaction(/*revertible=*/true);
            for (int i = 0; i < 60; ++i)
                work.step();
            transaction.rollBack();
        }
        ASSERT_EQ(describeDifference(before, snapshot(fresh, Identity::Object)), "") << "seed " << seed;
    }
}

INSTANTIATE_TEST_SUITE_P(Flavours, LibraryBehaviour, ::testing::Values(&generatedLibrary(), &runtimeLibrary()),
                         [](auto const &info) { return info.param->name; });

} // namespace
} // namespace kivra::test
