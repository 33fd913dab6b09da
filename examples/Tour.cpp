// A tour of kivra: each section shows one part of the library at work.
#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/ModelConstellation.hpp>
#include <kivra/ModelElement.hpp>
#include <kivra/meta/Class.hpp>

#include <basalt/i18n/Unicode.hpp>

#include <boost/uuid/uuid_io.hpp>

#include <iostream>

namespace {

using basalt::i18n::ustring_to_utf8;

// An element class as a metamodel's generated code shapes it: a one-pointer handle over
// an implementation that derives from ModelElement::Impl.
class Note : public kivra::ModelElement {
public:
    class Impl;
    Note() = default;
    static Note create(kivra::Model const &model);

private:
    explicit Note(kivra::ModelElement::Impl *impl) : ModelElement(impl, /*addReference=*/true) {}
};

class Note::Impl final : public kivra::ModelElement::Impl {
public:
    explicit Impl(kivra::Model const &model) : ModelElement::Impl(model, /*uuid=*/{}) {}
    kivra::meta::Class const &getMetaClass() const override {
        static kivra::meta::Class const unregistered;
        return unregistered;
    }

protected:
    void doDestroy(bool modelDestroying, bool multiModel) override {
        ModelElement::Impl::doDestroy(modelDestroying, multiModel);
    }
};

Note Note::create(kivra::Model const &model) {
    Note note(new Impl(model));
    note->notifyCreated();
    return note;
}

void errors() {
    std::cout << "== Errors\n";
    // Every error of the library is one family: catch IUserException, read the identity
    // and the text looked up from the catalogue.
    try {
        kivra::raise<kivra::messages::NoSuchProperty>(u"title", u"library::Book");
    } catch (basalt::except::IUserException const &error) {
        auto const &message = dynamic_cast<basalt::except::IMsgIDException const &>(error);
        std::cout << message.get_error_id() << "\n  " << ustring_to_utf8(message.GetUnicodeMessageTxt()) << '\n';
    }
}

void models() {
    std::cout << "== Models\n";
    // Models made with Model::create live in a constellation, which keeps them: the
    // constellation and its models go away together when nothing outside holds them.
    kivra::ModelConstellation constellation = kivra::ModelConstellation::create();
    kivra::Model drafts = kivra::Model::create(constellation);
    kivra::Model archive = kivra::Model::create(constellation);
    drafts->setModelURI(u"file:///notes/drafts");
    std::cout << "models in the constellation: " << constellation->modelsCount() << '\n'
              << "drafts: " << ustring_to_utf8(drafts->getModelURI()) << ", archive: "
              << ustring_to_utf8(archive->getModelURI()) << '\n';

    // With two models, every change needs a transaction; nested ones vote, the outermost
    // commit ends it.
    kivra::Transaction transaction = drafts->beginTransaction();
    Note first = Note::create(drafts);
    Note second = Note::create(drafts);
    transaction.commit();
    std::cout << "elements in drafts: " << drafts->elementCount() << ", found by UUID "
              << first->getUuid() << ": " << (drafts->findElement(first->getUuid()) == first) << '\n';

    // A destroyed element stays a tombstone for the handles that still name it.
    kivra::Transaction removal = drafts->beginTransaction();
    second->destroy();
    removal.commit();
    std::cout << "second note valid after destroy: " << bool(second) << ", still "
              << drafts->elementCount() << " element in drafts\n";

    // Work waits until no transaction runs.
    kivra::Transaction busy = archive->beginTransaction();
    archive->addToWorkQueue([](kivra::Model const &model) {
        std::cout << "queued work runs after the commit, on " << ustring_to_utf8(model->getModelURI()) << '\n';
    });
    std::cout << "committing\n";
    busy.commit();
}

} // namespace

int main() {
    errors();
    models();
    return 0;
}
