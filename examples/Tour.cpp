// A tour of kivra: each section shows one part of the library at work.
#include <kivra/Listener.hpp>
#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/ModelConstellation.hpp>
#include <kivra/ModelElement.hpp>
#include <kivra/ReportData.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Property.hpp>

#include <notes/Note.hpp>
#include <notes/Notebook.hpp>

#include <basalt/i18n/Unicode.hpp>

#include <boost/uuid/uuid_io.hpp>

#include <iostream>

namespace {

using basalt::i18n::ustring_to_utf8;

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
    // Note and Notebook are generated from examples/Notes.tables.
    notes::Note first = notes::Note::create(drafts);
    notes::Note second = notes::Note::create(drafts);
    first->setText(u"buy milk");
    notes::Notebook book = notes::Notebook::create(drafts);
    book->setPinned(first);
    transaction.commit();
    std::cout << "elements in drafts: " << drafts->elementCount() << ", found by UUID "
              << first->getUuid() << ": " << (drafts->findElement(first->getUuid()) == first) << '\n'
              << "pinned in its notebook: " << ustring_to_utf8(book->getPinned()->getText())
              << ", top-level elements: " << drafts->getTopLevelElements().size() << '\n';

    // A destroyed element stays a tombstone for the handles that still name it.
    kivra::Transaction removal = drafts->beginTransaction();
    second->destroy();
    removal.commit();
    std::cout << "second note valid after destroy: " << bool(second) << ", "
              << drafts->elementCount() << " elements left in drafts\n";

    // Work waits until no transaction runs.
    kivra::Transaction busy = archive->beginTransaction();
    archive->addToWorkQueue([](kivra::Model const &model) {
        std::cout << "queued work runs after the commit, on " << ustring_to_utf8(model->getModelURI()) << '\n';
    });
    std::cout << "committing\n";
    busy.commit();
}

// A validator that refuses empty notes, and an observer that says what happened.
struct NoteKeeper : kivra::Listener {
    bool validate(std::shared_ptr<kivra::ReportData> const &report) {
        for (notes::Note const &note : report->of<notes::Note>(report->getModified()))
            if (note->getText().empty()) {
                std::cout << "validator: an empty note is refused\n";
                return false;
            }
        return true;
    }
    void transactionCommitted(std::shared_ptr<kivra::ReportData> const &report) {
        std::cout << "observer: " << report->getCreated().size() << " created, " << report->getModified().size()
                  << " modified, " << report->getDestroyed().size() << " destroyed\n";
        for (kivra::ModelElement const &element : report->getModified())
            for (kivra::meta::Property const &property : report->getChangedProperties(element))
                std::cout << "  " << ustring_to_utf8(property->getName()) << " was \""
                          << ustring_to_utf8(report->getOldValue(element, property).get<basalt::ustring>()) << "\"\n";
    }
    void transactionCanceled(bool, std::shared_ptr<kivra::ReportData> const &) {
        std::cout << "observer: the transaction was rolled back\n";
    }
};

void listeners() {
    std::cout << "== Listeners\n";
    kivra::Model model = kivra::Model::createTransientModel();
    NoteKeeper keeper;
    kivra::addListener<kivra::ListenerRole::Validator | kivra::ListenerRole::Observer>(model, keeper);

    notes::Note note;
    {
        kivra::Transaction transaction = model->beginTransaction();
        note = notes::Note::create(model);
        note->setText(u"call Ada");
        transaction.commit();
    }
    {
        kivra::Transaction transaction = model->beginTransaction();
        note->setText(u"call Ada at nine");
        transaction.commit();
    }
    {
        kivra::Transaction transaction = model->beginTransaction();
        note->setText(u"");
        auto const result = transaction.commit();
        std::cout << "commit result " << static_cast<int>(result) << " (rolled back), the text is still \""
                  << ustring_to_utf8(note->getText()) << "\"\n";
    }
    kivra::removeListener(model, keeper);
}

} // namespace

int main() {
    errors();
    models();
    listeners();
    return 0;
}
