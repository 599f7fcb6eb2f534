/// @file
/// The Win32 declarations that the layer offers; platform/README.md lists them with what differs from Windows.
#pragma once
#include "platform/linux/error.h"
#include "platform/linux/fault.h"
#include "platform/linux/file.h"
#include "platform/linux/floating_point.h"
#include "platform/linux/handle.h"
#include "platform/linux/memory.h"
#include "platform/linux/module.h"
#include "platform/linux/process.h"
#include "platform/linux/shell_path.h"
#include "platform/linux/synchronization.h"
#include "platform/linux/system_info.h"
#include "platform/linux/text.h"
#include "platform/linux/thread.h"
#include "platform/linux/types.h"
#include "platform/linux/wait.h"
