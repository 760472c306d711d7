// The version of the shared library, for whoever reads it from the file before loading it, as the
// Java classes of the same build do. Nothing refers to it and it has no visible name.

namespace {

[[gnu::used]] const char kLibraryVersion[] = "dspcard library version " DSPCARD_VERSION;

}  // namespace
