// What the layer keeps to itself, for the test of hostile files.
#include "qelibaselib/platform/linux/modules/file_symbols.cpp"
#include "qelibaselib/platform/linux/modules/lzma_decoder.cpp"
#include "qelibaselib/platform/linux/modules/mapped_pages.cpp"
#include "qelibaselib/platform/linux/modules/symbol_name.cpp"
#include "qelibaselib/platform/linux/modules/symbol_table.cpp"
#include "qelibaselib/platform/linux/modules/xz_decoder.cpp"
