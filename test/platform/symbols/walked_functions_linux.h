// Functions of every shape that a compiler gives them, to be walked from inside.
#pragma once

namespace qel::test {
// Calls all of them. Compiled without frame pointers.
int CallEveryShape(int seed);
}  // namespace qel::test
