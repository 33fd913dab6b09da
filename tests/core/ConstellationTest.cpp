#include <library/Author.hpp>
#include <library/Book.hpp>

#include <kivra/ElementId.hpp>
#include <kivra/Listener.hpp>
#include <kivra/Messages.hpp>
#include <kivra/ModelConstellation.hpp>
#include <kivra/ReportData.hpp>
#include <kivra/services/ModelIdNormalizer.hpp>

#include <basalt/except/Exception.hpp>
#include <basalt/i18n/Unicode.hpp>

#include <boost/uuid/uuid_io.hpp>
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kivra::test::library {
namespace {

using R = TransactionResult;

basalt::ustring textOf(boost::uuids::uuid const &id) { return basalt::i18n::utf8_to_ustring(boost::uuids::to_string(id)); }

struct PhaseJournal : Listener {
    std::vector<std::string> &journal;
    std::string name;
    PhaseJournal(std::vector<std::string> &journal, std::string name) : journal(journal), name(std::move(name)) {}
    void modify(std::shared_ptr<ReportData> const &) { journal.push_back(name + ":modify"); }
    bool validate(std::shared_ptr<ReportData> const &) { return journal.push_back(name + ":validate"), true; }
    void transactionCommitted(std::shared_ptr<ReportData> const &) { journal.push_back(name + ":committed"); }
};

TEST(Constellation, MembersCommitAsOne) {
    ModelConstellation constellation = ModelConstellation::create();
    Model a = Model::create(constellation);
    Model b = Model::create(constellation);
    std::vector<std::string> journal;
    PhaseJournal onA(journal, "a"), onB(journal, "b");
    constexpr unsigned roles = ListenerRole::Modifier | ListenerRole::Validator | ListenerRole::Observer;
    addListener<roles>(a, onA);
    addListener<roles>(b, onB);

    Transaction inA = a->beginTransaction();
    EXPECT_TRUE(b->isTransactionInProgress()); // one group for all members
    Transaction inB = b->beginTransaction();
    Book::create(a);
    Book::create(b);
    EXPECT_EQ(inA.commit(), R::NotFinished); // b's handle has not voted
    EXPECT_TRUE(journal.empty());
    EXPECT_EQ(inB.commit(), R::Committed);
    EXPECT_EQ(journal, (std::vector<std::string>{"a:modify", "b:modify", "a:validate", "b:validate", "a:committed",
                                                 "b:committed"}));
    EXPECT_FALSE(constellation->isTransactionInProgress());

    // Several members: every group is deep, and rolls back as one.
    Transaction both = a->beginTransaction();
    Book::create(a);
    Book::create(b);
    EXPECT_EQ(both.rollBack(), R::RolledBack);
    EXPECT_EQ(a->elementCount(), 1u);
    EXPECT_EQ(b->elementCount(), 1u);
    removeListener(a, onA);
    removeListener(b, onB);
}

TEST(Constellation, UriHistoryFollowsRenamesAndDestruction) {
    ModelConstellation constellation = ModelConstellation::create();
    Model model = Model::create(constellation);
    Model other = Model::create(constellation);
    basalt::ustring const memory = model->getModelURI();
    model->setModelURI(u"file:///one");
    EXPECT_EQ(constellation->getLatestModelURI(memory), u"file:///one");
    model->setModelURI(u"file:///two");
    EXPECT_EQ(constellation->getLatestModelURI(memory), u"file:///two");
    EXPECT_EQ(constellation->getLatestModelURI(u"file:///one"), u"file:///two");

    model->destroy();
    // Every old URI leads to the last URI it had, which can be loaded again.
    EXPECT_EQ(constellation->getLatestModelURI(u"file:///one"), u"file:///two");
    EXPECT_EQ(constellation->getLatestModelURI(memory), u"file:///two");
    // A model that only ever had its memory URI leaves no history.
    basalt::ustring const otherMemory = other->getModelURI();
    other->destroy();
    EXPECT_EQ(constellation->getLatestModelURI(otherMemory), otherMemory);
    constellation->setModelURIOverride(u"file:///one", u"file:///elsewhere");
    EXPECT_EQ(constellation->getLatestModelURI(u"file:///one"), u"file:///elsewhere");
}

TEST(Proxy, ResolvesInPlaceWithoutTransactionOrListener) {
    ModelConstellation constellation = ModelConstellation::create();
    Model model = Model::create(constellation);
    Book book = Book::create(model);
    auto const authorId = ElementImpl::generateNewUuid();
    Author const proxy = Author::createProxy(model, ProxyId(u"uuid", textOf(authorId), boost::none));
    EXPECT_TRUE(proxy->isProxy());
    EXPECT_EQ(proxy->getPersistentProxyId(false), *proxy->getProxyId());
    book->setAuthor(proxy);
    EXPECT_THROW(proxy->setName(u"x"), Error<messages::CannotModifyProxy>);

    Author unresolved = book->getAuthor(); // the element is not there yet
    EXPECT_TRUE(unresolved);
    EXPECT_TRUE(unresolved->isProxy());

    Author real = Author::create(model, authorId);
    std::vector<std::string> journal;
    PhaseJournal observer(journal, "o");
    addListener<ListenerRole::Observer>(model, observer);
    EXPECT_EQ(book->getAuthor(), real); // resolved and replaced in place
    EXPECT_FALSE(model->isTransactionInProgress());
    EXPECT_TRUE(journal.empty());
    removeListener(model, observer);

    ProxyId const local = book->getPersistentProxyId(true);
    EXPECT_FALSE(local.getModelId());
    EXPECT_EQ(local.getIdentifier(), textOf(book->getUuid()));
    EXPECT_EQ(book->getPersistentProxyId(false).getModelId().value_or(u""), model->getModelURI());
}

TEST(Proxy, ReferencesIntoOtherModelsAfterDestruction) {
    ModelConstellation constellation = ModelConstellation::create();
    Model a = Model::create(constellation);
    Model b = Model::create(constellation);
    Transaction transaction = a->beginTransaction();
    Book reader = Book::create(a);
    reader->setSequel(Book::create(b));
    transaction.commit();
    // A whole model destroyed: references into it read as none, and nothing keeps it.
    b->destroy();
    EXPECT_EQ(reader->getSequel().get(), nullptr);
    EXPECT_EQ(constellation->modelsCount(), 1u);
}

// Loads "test-load:" URIs by building a model in a constellation of its own.
struct LoadingNormalizer : services::ModelIdNormalizer {
    int loads = 0;
    boost::uuids::uuid elementId = ElementImpl::generateNewUuid();
    boost::optional<basalt::ustring> toLocationModelId(basalt::ustring const &) override { return boost::none; }
    boost::optional<basalt::ustring> toExternalModelId(basalt::ustring const &) override { return boost::none; }
    Model loadModel(basalt::ustring const &location, services::ModelLoadOptions const &) override {
        if (location.rfind(u"test-load:", 0) != 0)
            return {};
        ++loads;
        Model model = Model::create(ModelConstellation::create());
        Book::create(model, elementId);
        return model;
    }
    bool saveModel(Model const &, basalt::ustring const &, SaveModelMode) override { return false; }
};

// Registered once for the whole test program.
std::shared_ptr<LoadingNormalizer> loadingNormalizer() {
    static auto const normalizer = std::make_shared<LoadingNormalizer>();
    static bool const registered = (services::registerModelIdNormalizer(normalizer), true);
    (void)registered;
    return normalizer;
}

TEST(Proxy, ResolvingLoadsTheNamedModelPeekingOrAFrozenReadDoesNot) {
    auto const normalizer = loadingNormalizer();
    ModelConstellation constellation = ModelConstellation::create();
    Model model = Model::create(constellation);
    Book book = Book::create(model);
    Book const proxy = Book::createProxy(model, ProxyId(u"uuid", textOf(normalizer->elementId), basalt::ustring(u"test-load:shelf")));

    int const before = normalizer->loads;
    EXPECT_TRUE(model->peekResolveProxy(book.get(), proxy)->isProxy());
    Transaction transaction = model->beginTransaction();
    book->setSequel(proxy);
    transaction.commit();
    {
        // A load would change the constellation under the feet of the other readers.
        Model::Freezer const frozen = model->freeze();
        EXPECT_TRUE(book->getSequel()->isProxy());
    }
    EXPECT_EQ(normalizer->loads, before);
    Book const loaded = book->getSequel();
    EXPECT_EQ(normalizer->loads, before + 1);
    ASSERT_FALSE(loaded->isProxy());
    EXPECT_EQ(loaded->getUuid(), normalizer->elementId);
    EXPECT_EQ(constellation->modelsCount(), 2u); // the loaded model joined
    EXPECT_EQ(constellation->peekModel(u"test-load:shelf"), loaded->getModel());
}

struct Membership : ConstellationListener {
    std::vector<std::string> events;
    void modelAdded(ModelConstellation const &, Model const &) override { events.push_back("added"); }
    void modelRemoved(ModelConstellation const &, Model const &) override { events.push_back("removed"); }
    void listenerRemoved(ModelConstellation const &) override { events.push_back("listener removed"); }
};

TEST(Constellation, ListenersHearOfMembersAndOfTheirOwnRemoval) {
    Membership membership;
    {
        ModelConstellation constellation = ModelConstellation::create();
        constellation->addConstellationListener(&membership);
        Model model = Model::create(constellation);
        model->destroy();
    }
    EXPECT_EQ(membership.events, (std::vector<std::string>{"added", "removed", "listener removed"}));
}

// Listeners that do awkward things in the middle of a group's end.
struct Hook : Listener {
    std::function<void()> onModify = [] {};
    std::function<bool()> onValidate = [] { return true; };
    std::function<void()> onCommitted = [] {};
    void modify(std::shared_ptr<ReportData> const &) { onModify(); }
    bool validate(std::shared_ptr<ReportData> const &) { return onValidate(); }
    void transactionCommitted(std::shared_ptr<ReportData> const &) { onCommitted(); }
};
constexpr unsigned everyRole = ListenerRole::Modifier | ListenerRole::Validator | ListenerRole::Observer;

TEST(ConstellationGroup, EndsCleanlyWhateverTheListenersDo) {
    ModelConstellation constellation = ModelConstellation::create();
    Model a = Model::create(constellation);
    Model b = Model::create(constellation);
    Hook hook;
    addListener<everyRole>(a, hook);

    // An interrupt from a validator passes, and the group is over all the same.
    hook.onValidate = []() -> bool { throw basalt::InterruptException(); };
    {
        Transaction transaction = a->beginTransaction();
        Book::create(a);
        EXPECT_THROW(transaction.commit(), basalt::InterruptException);
    }
    EXPECT_FALSE(constellation->isTransactionInProgress());
    hook.onValidate = [] { return true; };

    // A roll-back vote cast by a modifier wins over the commit.
    hook.onModify = [&] { a->beginTransaction().rollBack(); };
    {
        Transaction transaction = a->beginTransaction();
        Book::create(a);
        EXPECT_EQ(transaction.commit(), R::RolledBack);
    }
    hook.onModify = [] {};

    // A model that joins during the phases ends with the group.
    Model late;
    hook.onModify = [&] {
        if (!late)
            late = Model::create(constellation);
    };
    {
        Transaction transaction = a->beginRevertibleTransaction();
        Book::create(a);
        EXPECT_EQ(transaction.commit(), R::Committed);
    }
    hook.onModify = [] {};
    ASSERT_TRUE(late);
    EXPECT_FALSE(late->isTransactionInProgress());
    removeListener(a, hook);
}

TEST(ConstellationGroup, TheLastMemberLeavingEndsTheGroup) {
    ModelConstellation constellation = ModelConstellation::create();
    Model model = Model::create(constellation);
    {
        Transaction transaction = model->beginTransaction();
        model->destroy();
    }
    EXPECT_FALSE(constellation->isTransactionInProgress());
    EXPECT_NO_THROW(Model::create(constellation));
}

TEST(ConstellationGroup, AnObserverMayDestroyItsModel) {
    Model model = Model::create(ModelConstellation());
    Hook hook;
    hook.onCommitted = [&] { model->destroy(); };
    addListener<ListenerRole::Observer>(model, hook);
    Transaction transaction = model->beginTransaction();
    Book::create(model);
    EXPECT_EQ(transaction.commit(), R::Committed);
    EXPECT_FALSE(model);
}

TEST(ConstellationGroup, ListenersRemovedByOthersAreNotCalled) {
    struct Remover : ConstellationListener {
        ModelConstellation::Impl *constellation = nullptr;
        ConstellationListener *victim = nullptr;
        void modelAdded(ModelConstellation const &, Model const &) override {
            if (victim)
                constellation->removeConstellationListener(std::exchange(victim, nullptr));
        }
        void modelRemoved(ModelConstellation const &, Model const &) override {}
    };
    struct Victim : ConstellationListener {
        void modelAdded(ModelConstellation const &, Model const &) override { ADD_FAILURE() << "called after removal"; }
        void modelRemoved(ModelConstellation const &, Model const &) override {}
    };
    ModelConstellation constellation = ModelConstellation::create();
    Remover remover;
    remover.constellation = constellation.get();
    auto victim = std::make_unique<Victim>();
    remover.victim = victim.get();
    constellation->addConstellationListener(&remover);
    constellation->addOwnedConstellationListener(std::move(victim));
    Model::create(constellation);
    constellation->removeConstellationListener(&remover);
}

// A model that a read loads would have to join the running group, which a shallow group
// cannot take: the read fails rather than pass off the proxy as an element not found. The
// reference stays as it was and resolves once a group can take the model.
TEST(ConstellationGroup, AReadThatLoadsAModelFailsInAShallowGroup) {
    auto const normalizer = loadingNormalizer();
    ModelConstellation constellation = ModelConstellation::create();
    Model model = Model::create(constellation);
    Book book = Book::create(model);
    book->setSequel(Book::createProxy(model, ProxyId(u"uuid", textOf(normalizer->elementId),
                                                     basalt::ustring(u"test-load:elsewhere"))));
    {
        Transaction shallow = model->beginTransaction();
        EXPECT_THROW(book->getSequel(), Error<messages::CannotJoinShallowTransaction>);
        EXPECT_TRUE(book->getPropertyValue(Book::Impl::sequelProperty(), ModelElement::Impl::ReflectionPrivateTag::NO_PROXY_RESOLVE)
                        .getElement()
                        ->isProxy());
        shallow.commit();
    }
    EXPECT_EQ(constellation->modelsCount(), 1u);
    Transaction deep = model->beginRevertibleTransaction();
    EXPECT_EQ(book->getSequel()->getUuid(), normalizer->elementId);
    deep.commit();
    EXPECT_EQ(constellation->modelsCount(), 2u);
}

TEST(ElementIds, FindTheElementOfExactlyThatClass) {
    Model model = Model::createTransientModel();
    Book book = Book::create(model);
    ElementId const id(u"uuid", textOf(book->getUuid()));
    EXPECT_EQ(model->findElement(Book::metaClass(), id), book);
    EXPECT_FALSE(model->findElement(Author::metaClass(), id));
    EXPECT_FALSE(model->findElement(Book::metaClass(), ElementId(u"uuid", u"not a uuid")));
    EXPECT_FALSE(model->findElement(Book::metaClass(), ElementId(u"isbn", u"978-0")));
}

// A proxy that a client keeps after its model is gone stays harmless: it names no id, and
// letting it go touches nothing of the model.
TEST(Proxy, OutlivesItsModel) {
    Book proxy;
    {
        Model model = Model::createTransientModel();
        proxy = Book::createProxy(model, ProxyId(u"uuid", u"0b3a9c1e-0000-4000-8000-000000000001", boost::none));
        ASSERT_TRUE(proxy->getProxyId());
    }
    // The model's shell keeps the proxy's id for as long as the proxy lives.
    EXPECT_TRUE(proxy->isProxy());
    ASSERT_TRUE(proxy->getProxyId());
    EXPECT_EQ(proxy->getProxyId()->getIdentifier(), u"0b3a9c1e-0000-4000-8000-000000000001");
    EXPECT_FALSE(proxy->getModel());
    proxy.reset();
}

// A newcomer joins a running group only if it is deep. Listeners hear of it before it
// joins; one that fails keeps it neither out of the group nor out of the URI history.
TEST(Constellation, ANewcomerJoinsOnlyADeepGroupAfterItsListenersHearOfIt) {
    struct Watcher : ConstellationListener {
        std::vector<bool> inGroup;
        bool fail = false;
        void modelAdded(ModelConstellation const &, Model const &model) override {
            inGroup.push_back(model->isTransactionInProgress());
            if (fail)
                throw std::runtime_error("listener failed");
        }
        void modelRemoved(ModelConstellation const &, Model const &) override {}
    } watcher;
    ModelConstellation constellation = ModelConstellation::create();
    constellation->addConstellationListener(&watcher);
    Model first = Model::create(constellation);
    {
        Transaction shallow = first->beginTransaction();
        EXPECT_THROW(Model::create(constellation), Error<messages::CannotJoinShallowTransaction>);
        EXPECT_EQ(constellation->modelsCount(), 1u);
        shallow.commit();
    }
    Transaction deep = first->beginRevertibleTransaction();
    Model second = Model::create(constellation);
    EXPECT_EQ(watcher.inGroup, (std::vector<bool>{false, false})); // the refused one is not heard of
    EXPECT_TRUE(second->isTransactionInProgress());
    Book::create(second);

    watcher.fail = true;
    EXPECT_THROW(Model::create(constellation), std::runtime_error);
    EXPECT_EQ(constellation->modelsCount(), 3u);
    EXPECT_EQ(deep.commit(), R::Committed);
    EXPECT_FALSE(second->isTransactionInProgress());
    EXPECT_EQ(second->elementCount(), 1u);
    constellation->removeConstellationListener(&watcher);
}

} // namespace
} // namespace kivra::test::library
