// What the layer keeps to itself, for the test of hostile files.
#include "platform/linux/symbol_name.cpp"
#include "platform/linux/symbol_table.cpp"
