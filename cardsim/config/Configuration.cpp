#include "config/Configuration.h"

#include <nlohmann/json.hpp>
#include <stdexcept>

namespace cardsim {

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Fault, kind, card, first, last, probability, field)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(ScenarioEvent, time_us, line, action, text, level, fault, origin)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(SimulatedPc::Options, channels, seed, period_ms, audio, faults,
                                   virtualTime, speed)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Configuration, pc, memoryFile, traffic, events, speakerFile,
                                   ringFile, scriptFile, end_ms)

namespace {

// It may come from anywhere.
void check(const Fault& fault) {
    const auto kind = static_cast<int>(fault.kind);
    const auto field = static_cast<int>(fault.field);
    if (fault.card < Fault::kEveryCard || kind < 0 || kind >= kNumFaultKinds || field < 0 ||
        field > static_cast<int>(FaultField::kAudio)) {
        throw std::invalid_argument("there is no such fault");
    }
}

}  // namespace

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
    auto configuration = nlohmann::json::parse(text).get<Configuration>();
    for (const int channels : configuration.pc.channels) {
        if (channels != 0) {
            kindOf(channels);
        }
    }
    for (const Fault& fault : configuration.pc.faults) {
        check(fault);
    }
    for (const ScenarioEvent& event : configuration.events) {
        check(event.fault);
    }
    checkScenario(configuration.events, configuration.pc.channels);
    return configuration;
}

Configuration configurationFrom(const std::string& text) {
    return nlohmann::json::from_cbor(text).get<Configuration>();
}

}  // namespace cardsim
