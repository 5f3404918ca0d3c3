// The writers that turn the model into the generated header, source and
// module-definition file. Each appends text to a string; main.cpp puts the
// strings into files only when everything has been written.
#pragma once

#include "model.h"

#include <string>

namespace vexalgen {

struct Output {
    std::string stem;       // the type library's file name without extension
    std::string module;     // the module that holds the type library
    std::string header;     // <stem>_vexal.h
    std::string source;     // <stem>_vexal.cpp
    std::string definition; // <stem>_vexal.def
};

void writeHeader(const Library &library, Output &out);
void writeSource(const Library &library, Output &out);
void writeDefinition(const Library &library, Output &out);

// The fixed support code at the top of every generated source.
extern const char *const kPrelude;

} // namespace vexalgen
