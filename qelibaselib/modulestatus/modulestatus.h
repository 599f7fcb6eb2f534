/// @file
/// Diagnostics of the process: exception report, stack walk, module status report.
#pragma once
#include "modulestatus/exception_report.h"
#include "modulestatus/stack_walk.h"
#include "modulestatus/status_report.h"
