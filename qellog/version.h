/// @file
/// The version of the package.
#pragma once

#ifndef QELLOG_VERSION
#define QELLOG_VERSION "0"
#endif
