// What only elements without generated code show: their own errors, their builders and
// proxies, and the rule that a model holds one kind of element.

#include <Flavours.hpp>

#include <kivra/AbstractPrimitiveCollection.hpp>
#include <kivra/ElementId.hpp>
#include <kivra/ElementSequence.hpp>
#include <kivra/Transaction.hpp>
#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/meta/AbstractMetaPackage.hpp>
#include <kivra/meta/Enum.hpp>
#include <kivra/meta/EnumLiteral.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/Package.hpp>
#include <kivra/reflection/ReflectiveBuilder.hpp>
#include <kivra/reflection/ReflectiveModelElementImpl.hpp>

#include <boost/optional/optional.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <latch>
#include <thread>
#include <utility>
#include <vector>

namespace kivra::test {
namespace {

// Classes with what the library lacks: a property without type, a set-once property.
class OddPackage : public meta::AbstractMetaPackage {
public:
    OddPackage() {
        begin();
        meta::Package const package = createPackage(u"roddities", meta::MetaRegistry::composeUri(u"1", u"roddities"));
        untyped = createClass(u"Untyped", "", false, nullptr);
        stamp = createClass(u"Stamp", "", false, nullptr);
        for (meta::Class const *cls : {&untyped, &stamp}) {
            (*cls)->setOwningPackage(package);
            (*cls)->setSuperclass(ModelElement::metaClass());
        }
        meta::Property const loose = createProperty(u"loose", ValueFlags::Single, false, nullptr);
        setPropertyIndex(loose, 1);
        loose->setOwningType(untyped);
        serial = createProperty(u"serial", ValueFlags::Single, false, nullptr);
        setPropertyIndex(serial, 1);
        serial->setOwningType(stamp);
        serial->setType(registry().getType(u"String"));
        serial->setIsReadOnly(true);
        serial->setIsSetOnce(true);
        weight = createProperty(u"weight", ValueFlags::Single, false, nullptr);
        setPropertyIndex(weight, 3);
        weight->setOwningType(stamp);
        weight->setType(registry().getType(u"Integer64"));
        weight->setDefaultValue(basalt::ustring(u"7"));
        meta::Property const rank = createProperty(u"rank", ValueFlags::Optional, false, nullptr);
        setPropertyIndex(rank, 6);
        rank->setOwningType(stamp);
        rank->setType(registry().getType(u"Integer64"));
        mark = createClass(u"Mark", "", /*isAbstract=*/true, nullptr);
        mark->setOwningPackage(package);
        mark->setSuperclass(ModelElement::metaClass());
        colour = createEnum(u"Colour", nullptr);
        colour->setOwningPackage(package);
        colour->setUnderlyingType(registry().getPrimitiveType(u"Integer"));
        int number = 0;
        for (char16_t const *name : {u"red", u"green", u"blue"})
            createEnumLiteral(name, number++, nullptr)->setParentEnum(colour);
        shades = createProperty(u"shades", ValueFlags::Sequence, false, nullptr);
        hues = createProperty(u"hues", ValueFlags::HashSet, false, nullptr);
        shades->setIsUnique(false); // a list with repeats; `palette` is unique
        palette = createProperty(u"palette", ValueFlags::Sequence, false, nullptr);
        palette->setIsUnique(true);
        std::pair<meta::Property const *, int> const many[] = {{&shades, 4}, {&hues, 5}, {&palette, 7}};
        for (auto const &[property, index] : many) {
            setPropertyIndex(*property, index);
            (*property)->setOwningType(stamp);
            (*property)->setType(colour);
        }
        // A crate holds stamps; a big crate has a property of its own under the index of
        // the crate's, so that the index of `contents` does not name it in a big crate.
        crate = createClass(u"Crate", "", false, nullptr);
        bigCrate = createClass(u"BigCrate", "", false, nullptr);
        crate->setOwningPackage(package);
        crate->setSuperclass(ModelElement::metaClass());
        bigCrate->setOwningPackage(package);
        bigCrate->setSuperclass(crate);
        contents = createProperty(u"contents", ValueFlags::Sequence, false, nullptr);
        setPropertyIndex(contents, 1);
        contents->setOwningType(crate);
        contents->setType(stamp);
        contents->setIsComposite(true);
        meta::Property const label = createProperty(u"label", ValueFlags::Single, false, nullptr);
        setPropertyIndex(label, 1);
        label->setOwningType(bigCrate);
        label->setType(registry().getType(u"String"));
        registry().registerType(crate);
        registry().registerType(bigCrate);
        registry().registerType(untyped);
        registry().registerType(stamp);
        registry().registerType(colour);
        registry().registerType(mark);
        finish();
    }
    meta::Class untyped, stamp, mark, crate, bigCrate;
    meta::Property serial, weight, shades, hues, palette, contents;
    meta::Enum colour;
};

OddPackage const &oddities() {
    static OddPackage const *const package = new OddPackage();
    return *package;
}

// Counts the owned forms of the values of one type that are alive: every conversion
// makes one, every release gives one up, and a release of more than was made is noted.
class OwnedValueLedger : public meta::ValueOwnershipConverter {
public:
    explicit OwnedValueLedger(meta::Type const &type) : type_(type) {
        registry().registerOwnershipConverter(type_, std::unique_ptr<meta::ValueOwnershipConverter>(this));
    }
    ~OwnedValueLedger() override = default;
    Value convertValueForOwnership(Value const &value) override {
        if (conversionsLeft-- == 0)
            throw std::runtime_error("no room for the value");
        ++alive;
        return value;
    }
    void releaseOwnedValue(Value const &) override {
        if (--alive < 0)
            ++overReleased;
    }
    static meta::MetaRegistry &registry() { return *meta::MetaRegistry::getInstance(); }

    int alive = 0;
    int overReleased = 0;
    /// The conversions that succeed before one fails; negative: all do.
    int conversionsLeft = -1;

private:
    meta::Type type_;
};

TEST(ReflectiveElement, OwnedValuesAreReleasedOnceForEachConversion) {
    meta::Type const type = oddities().weight->getType();
    // The registry owns the ledger; the test reads it until it unregisters it.
    auto *const ledger = new OwnedValueLedger(type);
    Value const heavy(type, std::int64_t(90)), light(type, std::int64_t(1));
    {
        Model model = Model::createTransientModel();
        ModelElement const made = oddities().stamp->instantiate(model);
        EXPECT_EQ(get(made, u"weight").get<std::int64_t>(), 7);
        auto builder = oddities().stamp->instantiateBuilder(model);
        builder->setOrAdd(oddities().weight, heavy);
        ModelElement const built = builder->create();
        EXPECT_EQ(get(built, u"weight"), heavy);
        {
            Transaction transaction = model->beginTransaction(/*revertible=*/true);
            set(made, u"weight", light);
            set(made, u"weight", heavy);
            set(built, u"weight", light);
            transaction.rollBack();
        }
        EXPECT_EQ(get(made, u"weight").get<std::int64_t>(), 7);
        EXPECT_EQ(get(built, u"weight"), heavy);
        {
            Transaction transaction = model->beginTransaction(/*revertible=*/true);
            set(made, u"weight", light);
            built->destroy();
            transaction.commit();
        }
        ModelElement::createProxy(model, oddities().stamp,
                                  ProxyId(u"uuid", u"5eed0000-0000-3000-8000-00000000f00d", boost::none));
        EXPECT_EQ(ledger->overReleased, 0);
        EXPECT_GT(ledger->alive, 0);
        model->destroy();
    }
    EXPECT_EQ(ledger->overReleased, 0);
    EXPECT_EQ(ledger->alive, 0);
    OwnedValueLedger::registry().unregisterOwnershipConverter(type);
}

TEST(ReflectiveElement, AFailedCreationLeavesNothingBehind) {
    Model model = Model::createTransientModel();
    meta::Type const type = oddities().weight->getType();
    auto *const ledger = new OwnedValueLedger(type);
    // The second of the two values of this type fails: the first must go again.
    ledger->conversionsLeft = 1;
    EXPECT_THROW(ModelElement::createReflective(model, oddities().stamp, {}), std::runtime_error);
    EXPECT_EQ(ledger->alive, 0);
    EXPECT_EQ(ledger->overReleased, 0);
    // A builder's staged value that fails, after the start values took theirs: the
    // half-made element goes with them.
    auto builder = oddities().stamp->instantiateBuilder(model);
    builder->setOrAdd(oddities().weight, Value(type, std::int64_t(90)));
    ledger->conversionsLeft = 2;
    EXPECT_THROW(builder->create(), std::runtime_error);
    EXPECT_EQ(ledger->alive, 0);
    EXPECT_EQ(ledger->overReleased, 0);
    OwnedValueLedger::registry().unregisterOwnershipConverter(type);
    EXPECT_TRUE(model->getAllElements().empty());

    ModelElement const made = oddities().stamp->instantiate(model);
    EXPECT_THROW(ModelElement::createReflective(model, oddities().stamp, made->getUuid()),
                 Error<messages::UUIDConflict>);
    EXPECT_THROW(ModelElement::createReflective(model, oddities().mark, {}), Error<messages::NoSuchOperation>);
    EXPECT_THROW(reflection::ReflectiveBuilder(model, oddities().mark).create(), Error<messages::NoSuchOperation>);
    EXPECT_THROW(oddities().untyped->instantiate(model), Error<messages::CannotUsePropertyWithoutType>);
    EXPECT_EQ(model->getAllElements(), std::vector<ModelElement>{made});
}

TEST(ReflectiveElement, AModelHoldsOneKindOfElement) {
    Model reflective = Model::createTransientModel();
    ModelElement const dune = runtimeLibrary().book->instantiate(reflective);
    EXPECT_TRUE(dune->isReflective());
    EXPECT_EQ(dune->getPropertyByIndex(5), prop(dune, u"pages"));
    EXPECT_FALSE(dune->getPropertyByIndex(99));
    EXPECT_THROW(generatedLibrary().book->instantiate(reflective), Error<messages::InvalidReifiedModelContent>);

    Model reified = Model::createTransientModel();
    generatedLibrary().book->instantiate(reified);
    EXPECT_THROW(runtimeLibrary().book->instantiate(reified), Error<messages::InvalidReflectiveModelContent>);
    EXPECT_EQ(reified->getAllElements().size(), 1u);
}

TEST(ReflectiveElement, ReadOnlyAndSetOnceProperties) {
    Model model = Model::createTransientModel();
    ModelElement const shelf = runtimeLibrary().shelf->instantiate(model);
    EXPECT_THROW(set(shelf, u"code", Value(prop(shelf, u"code")->getType(), std::string("A1"))),
                 Error<messages::NoSuchProperty>);

    ModelElement const stamp = oddities().stamp->instantiate(model);
    set(stamp, u"serial", text(u"S-1"));
    set(stamp, u"serial", text(u"S-1"));
    EXPECT_THROW(set(stamp, u"serial", text(u"S-2")), Error<messages::CannotSetReadOnlyProperty>);
    EXPECT_EQ(get(stamp, u"serial").get<basalt::ustring>(), u"S-1");
}

TEST(ReflectiveElement, CollectionsRefuseEntriesOfAnotherClass) {
    Model model = Model::createTransientModel();
    Flavour const &lib = runtimeLibrary();
    ModelElement const frank = lib.author->instantiate(model), shelf = lib.shelf->instantiate(model);
    ModelElement const novel = lib.novel->instantiate(model);
    EXPECT_THROW(many(frank, u"books").genericAdd(shelf), Error<messages::CannotAddIncompatibleTypes>);
    EXPECT_THROW(static_cast<GenericSequenceInterface &>(many(frank, u"books")).genericInsert(shelf, 0),
                 Error<messages::CannotAddIncompatibleTypes>);
    EXPECT_THROW(many(frank, u"coauthored").genericAdd(frank), Error<messages::CannotAddIncompatibleTypes>);
    EXPECT_THROW(many(shelf, u"catalogue").genericAdd(frank), Error<messages::CannotAddIncompatibleTypes>);
    EXPECT_EQ(many(frank, u"books").genericSize(), 0u);
    EXPECT_EQ(many(shelf, u"catalogue").genericSize(), 0u);
    // A subclass is an entry of its superclass's collections.
    many(frank, u"books").genericAdd(novel);
    EXPECT_EQ(element(novel, u"writer"), frank);
}

// A reflective list tests the class of what it is given on every way in: a direct append
// too, in a transaction that keeps and tells nothing as outside one.
TEST(ReflectiveElement, DirectAppendsRefuseEntriesOfAnotherClass) {
    Model model = Model::createTransientModel();
    Flavour const &lib = runtimeLibrary();
    ModelElement const shelf = lib.shelf->instantiate(model), dune = lib.book->instantiate(model);
    ModelElement const frank = lib.author->instantiate(model);
    auto const sequence = [](ModelElement const &holder, std::u16string_view name) -> ElementSequenceBase & {
        Value const value = get(holder, name, Access::PRIVILEGED_ACCESS);
        return dynamic_cast<ElementSequenceBase &>(*static_cast<ReferenceCollection *>(const_cast<void *>(value.getPayload())));
    };
    for (bool const inTransaction : {false, true}) {
        Transaction transaction = inTransaction ? model->beginTransaction(false) : Transaction();
        // A child, and a link whose far end is a set.
        EXPECT_THROW(sequence(shelf, u"books").push_back(frank), Error<messages::CannotAddIncompatibleTypes>);
        EXPECT_THROW(sequence(dune, u"coauthors").push_back(shelf), Error<messages::CannotAddIncompatibleTypes>);
        EXPECT_TRUE(frank->isTopLevel()) << inTransaction;
        EXPECT_EQ(sequence(shelf, u"books").size(), 0u) << inTransaction;
        EXPECT_EQ(sequence(dune, u"coauthors").size(), 0u) << inTransaction;
        transaction.commit();
    }
}

TEST(ReflectiveElement, AContainmentWhoseIndexNamesAnotherPropertyKeepsItsOwn) {
    Model model = Model::createTransientModel();
    for (meta::Class const *cls : {&oddities().crate, &oddities().bigCrate}) {
        ModelElement const crate = (*cls)->instantiate(model), stamp = oddities().stamp->instantiate(model);
        {
            Transaction transaction = model->beginTransaction(/*revertible=*/true);
            many(crate, u"contents").genericAdd(stamp);
            EXPECT_EQ(stamp->containmentFeature(), oddities().contents);
            transaction.rollBack();
        }
        EXPECT_TRUE(stamp->isTopLevel());
        EXPECT_FALSE(stamp->containmentFeature());
        many(crate, u"contents").genericAdd(stamp);
        EXPECT_EQ(stamp->container(), crate);
        EXPECT_EQ(stamp->containmentFeature(), oddities().contents);
        crate->destroy();
        EXPECT_FALSE(stamp->isValid());
    }
}

TEST(ReflectiveElement, MapKeysOfElementsAreTheirUuids) {
    using reflection::ReflectiveModelElementImpl;
    Model model = Model::createTransientModel();
    ModelElement const dune = runtimeLibrary().book->instantiate(model);
    EXPECT_EQ(ReflectiveModelElementImpl::unwrapKey(ref(dune)).get<boost::uuids::uuid>(), dune->getUuid());
    EXPECT_TRUE(ReflectiveModelElementImpl::unwrapKey(ref(ModelElement())).get<boost::uuids::uuid>().is_nil());
    EXPECT_EQ(ReflectiveModelElementImpl::unwrapKey(text(u"Dune")), text(u"Dune"));
}

TEST(ReflectiveElement, AClassWithoutCodeHasReflectiveProxies) {
    Model model = Model::createTransientModel();
    ProxyId const id(u"uuid", u"5eed0000-0000-3000-8000-00000000abcd", boost::none);
    ModelElement const proxy = ModelElement::createProxy(model, runtimeLibrary().book, id);
    ASSERT_TRUE(proxy.get());
    EXPECT_TRUE(proxy->isProxy());
    EXPECT_TRUE(proxy->isReflective());
    EXPECT_THROW(set(proxy, u"title", text(u"Dune")), Error<messages::CannotModifyProxy>);

    auto builder = runtimeLibrary().author->instantiateBuilder(model);
    ModelElement const viaBuilder = builder->createProxy(id);
    EXPECT_TRUE(viaBuilder->isProxy());
    EXPECT_TRUE(model->getAllElements().empty());
}

TEST(ReflectiveElement, AHolderWhoseMapHasTheKeyIsRefusedFromTheOtherEnd) {
    Model model = Model::createTransientModel();
    Flavour const &lib = runtimeLibrary();
    ModelElement const shelf = lib.shelf->instantiate(model);
    ModelElement const dune = lib.book->instantiate(model), twin = lib.book->instantiate(model);
    set(dune, u"title", text(u"Dune"));
    set(twin, u"title", text(u"Dune"));
    set(dune, u"catalogued", ref(shelf));
    EXPECT_THROW(set(twin, u"catalogued", ref(shelf)), Error<messages::UniquenessConstraint>);
    EXPECT_FALSE(element(twin, u"catalogued"));
    EXPECT_EQ(static_cast<GenericMapInterface &>(many(shelf, u"catalogue")).genericAt(text(u"Dune")), dune);
}

// A key that cannot be taken leaves the element under its old key in the maps that hold it.
TEST(ReflectiveElement, AKeyThatFailsToConvertChangesNothing) {
    Flavour const &lib = runtimeLibrary();
    meta::Type const type = lib.book->getPropertyByName(u"title")->getType();
    auto *const ledger = new OwnedValueLedger(type);
    {
        Model model = Model::createTransientModel();
        ModelElement const shelf = lib.shelf->instantiate(model);
        ModelElement const book = lib.book->instantiate(model);
        set(book, u"title", text(u"Dune"));
        set(book, u"catalogued", ref(shelf));
        ledger->conversionsLeft = 0;
        EXPECT_THROW(set(book, u"title", text(u"Emma")), std::runtime_error);
        EXPECT_EQ(get(book, u"title"), text(u"Dune"));
        EXPECT_EQ(element(book, u"catalogued"), shelf);
        EXPECT_EQ(many(shelf, u"catalogue").genericSize(), 1u);
    }
    EXPECT_EQ(ledger->overReleased, 0);
    EXPECT_EQ(ledger->alive, 0);
    OwnedValueLedger::registry().unregisterOwnershipConverter(type);
}

TEST(ReflectiveElement, ValuesOfManyOfAnEnumerationKeepTheirLiterals) {
    Model model = Model::createTransientModel();
    ModelElement const stamp = oddities().stamp->instantiate(model);
    auto collection = [&](meta::Property const &property) -> AbstractPrimitiveCollection & {
        Value const value = stamp->getPropertyValue(property, Access::PUBLIC_ACCESS);
        return *static_cast<AbstractPrimitiveCollection *>(const_cast<void *>(value.getPayload()));
    };
    meta::Enum const &colour = oddities().colour;
    auto literal = [&](std::uint64_t number) { return Value(colour, number); };
    // A collection is made on its first read, and only its entries make it a value.
    EXPECT_FALSE(stamp->hasPropertyValue(oddities().shades, Access::PUBLIC_ACCESS));
    AbstractPrimitiveCollection &shades = collection(oddities().shades);
    AbstractPrimitiveCollection &hues = collection(oddities().hues);
    EXPECT_FALSE(stamp->hasPropertyValue(oddities().shades, Access::PUBLIC_ACCESS));
    EXPECT_THROW(stamp->setPropertyValue(oddities().shades, literal(0), Access::PUBLIC_ACCESS),
                 Error<messages::NoSuchProperty>);
    EXPECT_EQ(shades.getCollectionType(), meta::Type(colour));
    shades.genericAdd(literal(2));
    shades.genericAdd(literal(0));
    shades.genericAdd(literal(2));
    hues.genericAdd(literal(1));
    hues.genericAdd(literal(1));
    EXPECT_EQ(shades.getAllValues(), (std::vector<Value>{literal(2), literal(0), literal(2)}));
    EXPECT_EQ(hues.getAllValues(), std::vector<Value>{literal(1)});
    EXPECT_THROW(shades.genericAdd(text(u"red")), Error<messages::CannotCastIncompatibleTypes>);
    auto &indexed = *static_cast<GenericPrimitiveSequenceInterface *>(shades.getGenericInterface());
    EXPECT_EQ(indexed.genericIndexOf(literal(0)), 1);
    EXPECT_THROW(indexed.genericAt(3), Error<messages::InvalidValue>);
    EXPECT_TRUE(stamp->hasPropertyValue(oddities().shades, Access::PUBLIC_ACCESS));
    {
        Transaction transaction = model->beginTransaction(/*revertible=*/true);
        shades.genericRemove(literal(2));
        indexed.genericInsert(literal(1), 0);
        hues.genericRemove(literal(1));
        hues.genericAdd(literal(2));
        transaction.rollBack();
    }
    EXPECT_EQ(shades.getAllValues(), (std::vector<Value>{literal(2), literal(0), literal(2)}));
    EXPECT_EQ(hues.getAllValues(), std::vector<Value>{literal(1)});

    // A unique list turns a literal it holds away, however it comes.
    AbstractPrimitiveCollection &palette = collection(oddities().palette);
    auto &ordered = *static_cast<GenericPrimitiveSequenceInterface *>(palette.getGenericInterface());
    palette.genericAdd(literal(0));
    palette.genericAdd(literal(1));
    palette.genericAdd(literal(0));
    ordered.genericInsert(literal(1), 0);
    ordered.genericReplace(literal(0), 1);
    EXPECT_EQ(palette.getAllValues(), (std::vector<Value>{literal(0), literal(1)}));
}

// Readers of a frozen model on several threads, each asking whether a collection has
// entries while another makes it on first read. Run under ThreadSanitizer, a plain
// access to the slot on either side shows up as a data race.
TEST(ReflectiveElement, FrozenElementsServeConcurrentReaders) {
    Model model = Model::createTransientModel();
    std::vector<ModelElement> shelves;
    for (int i = 0; i < 300; ++i)
        shelves.push_back(runtimeLibrary().shelf->instantiate(model));
    meta::Property const books = prop(shelves.front(), u"books"), labels = prop(shelves.front(), u"labels");
    auto const freezer = model->freeze();
    constexpr int threads = 4;
    std::atomic<int> found{0};
    std::latch start(threads);
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t)
        pool.emplace_back([&, t] {
            start.arrive_and_wait();
            for (ModelElement const &shelf : shelves)
                for (meta::Property const *property : {&books, &labels}) {
                    // Half the threads make the collections, half only look.
                    if (t % 2)
                        found += shelf->getPropertyValue(*property, Access::PUBLIC_ACCESS).hasPayload() ? 0 : 1;
                    found += shelf->hasPropertyValue(*property, Access::PUBLIC_ACCESS) ? 1 : 0;
                }
        });
    for (std::thread &thread : pool)
        thread.join();
    EXPECT_EQ(found.load(), 0);
}

} // namespace
} // namespace kivra::test
