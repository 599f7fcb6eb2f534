/// @file
/// Diagnostics of the process: exception report, stack walk, module status report.
#pragma once
#include "qelibaselib/modulestatus/exception_report.h"
#include "qelibaselib/modulestatus/stack_walk.h"
#include "qelibaselib/modulestatus/status_report.h"
