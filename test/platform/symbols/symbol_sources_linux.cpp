// What the layer keeps to itself, for the test of hostile files.
#include "qelibaselib/platform/linux/modules/symbol_name.cpp"
#include "qelibaselib/platform/linux/modules/symbol_table.cpp"
