#pragma once
/// \file
/// The services that know where models live: they turn model URIs between their
/// external and location forms, and load and save models.

#include <kivra/Handles.hpp>

#include <basalt/ustring.hpp>

#include <boost/optional/optional.hpp>

#include <cstdint>
#include <memory>

namespace kivra {

/// How `ModelConstellation::Impl::saveModels` treats a failure; handed on to the savers.
enum class SaveModelMode : std::uint32_t {
    SaveWhatCan = 0,  ///< a failure is dropped and the next model is saved
    StopOnError = 1,  ///< a failure ends the save with `ModelConstellationSaveFailed`
};

namespace services {

/// What a load may do on the way.
struct ModelLoadOptions {
    /// Whether a model of an older metamodel may be brought up to date while loading.
    bool evolve = false;
};

/// A service that knows one kind of model location. Each operation may decline by
/// answering none (or an empty model, or false), and the next normalizer is asked.
class ModelIdNormalizer {
public:
    virtual ~ModelIdNormalizer() = default;
    virtual boost::optional<basalt::ustring> toLocationModelId(basalt::ustring const &id) = 0;
    virtual boost::optional<basalt::ustring> toExternalModelId(basalt::ustring const &id) = 0;
    /// The model at `location`, or an empty handle.
    virtual Model loadModel(basalt::ustring const &location, ModelLoadOptions const &options) = 0;
    /// True when this normalizer saved the model.
    virtual bool saveModel(Model const &model, basalt::ustring const &id, SaveModelMode mode) = 0;

    /// The first answer of the registered normalizers, highest priority first; none
    /// answering leaves the id unchanged.
    static basalt::ustring convertToLocationModelId(basalt::ustring const &id);
    static basalt::ustring convertToExternalModelId(basalt::ustring const &id);
    /// The first model a normalizer loads from the id's location; an empty handle when none.
    static Model load(basalt::ustring const &id, ModelLoadOptions const &options);
    /// Asks the normalizers until one saves; when none does, nothing happens.
    static void save(Model const &model, basalt::ustring const &id, SaveModelMode mode);
};

/// Adds a normalizer: higher priorities are asked first, and among equal ones the one
/// added last. Thread-safe; normalizers stay for the life of the process.
void registerModelIdNormalizer(std::shared_ptr<ModelIdNormalizer> normalizer, int priority = 0);

} // namespace services
} // namespace kivra
