#include "config/Configuration.h"

#include <nlohmann/json.hpp>

namespace cardsim {

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Fault, kind, card, first, last, probability, field)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(ScenarioEvent, time_us, line, action, text, level, fault, origin)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(SimulatedPc::Options, channels, seed, period_ms, audio, faults,
                                   virtualTime, speed)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Configuration, pc, memoryFile, traffic, events, speakerFile,
                                   ringFile, scriptFile, end_ms)

std::string textOf(const Configuration& configuration) {
    // File names and scenario texts need not be UTF-8; binary keeps them as they are.
    const auto binary = nlohmann::json::to_cbor(nlohmann::json(configuration));
    return {binary.begin(), binary.end()};
}

std::string descriptionOf(const Configuration& configuration) {
    Configuration described = configuration;
    described.memoryFile = described.speakerFile = described.ringFile = described.scriptFile = "";
    return nlohmann::json(described).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

Configuration describedBy(const std::string& text) {
    return nlohmann::json::parse(text).get<Configuration>();
}

Configuration configurationFrom(const std::string& text) {
    return nlohmann::json::from_cbor(text).get<Configuration>();
}

}  // namespace cardsim
