// The options of a recording on a command line, the same of all programs that record.
#pragma once

#include <CLI/CLI.hpp>

#include "recorder/Recording.h"

namespace cardtrace {

// Declares all options but that for the file, without which they are of no use.
inline void declareOptions(CLI::App& app, Recording::Options& options, CLI::Option* file) {
    app.add_option("--last", options.mostBytes,
                   "keep the trace no longer than SIZE bytes, or with KB, MB or GB\n"
                   "behind it: the oldest makes room")
        ->transform(CLI::AsSizeValue(true).description(""))
        ->check(CLI::Range(Recording::kLeastBytes, ~std::uint64_t{0}).description(""))
        ->needs(file)
        ->type_name("SIZE");
    app.add_flag("--without-audio", options.withoutAudio,
                 "leave audio out of the trace; its lengths and checksums stay")
        ->needs(file);
    app.add_flag("--without-numbers", options.withoutNumbers,
                 "mask callers and digits in the trace")
        ->needs(file);
}

}  // namespace cardtrace
