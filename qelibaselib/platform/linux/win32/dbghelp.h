/// @file
/// Symbols of loaded modules and the walk of a stack.
#pragma once
#include "qelibaselib/platform/linux/win32/windef.h"

#define IMAGE_FILE_MACHINE_I386 0x014C
enum ADDRESS_MODE { AddrMode1616, AddrMode1632, AddrModeReal, AddrModeFlat };
struct ADDRESS {
  DWORD Offset;
  WORD Segment;
  ADDRESS_MODE Mode;
};
using LPADDRESS = ADDRESS*;
struct KDHELP {
  DWORD Thread, ThCallbackStack, NextCallback, FramePointer, KiCallUserMode, KeUserCallbackDispatcher, SystemRangeStart,
      ThCallbackBStore, KiUserExceptionDispatcher, StackBase, StackLimit, Reserved[5];
};
struct STACKFRAME {
  ADDRESS AddrPC, AddrReturn, AddrFrame, AddrStack;
  PVOID FuncTableEntry;
  DWORD Params[4];
  BOOL Far, Virtual;
  DWORD Reserved[3];
  KDHELP KdHelp;
  ADDRESS AddrBStore;
};
using LPSTACKFRAME = STACKFRAME*;
struct IMAGEHLP_SYMBOL {
  DWORD SizeOfStruct, Address, Size, Flags, MaxNameLength;
  CHAR Name[1];
};
using PIMAGEHLP_SYMBOL = IMAGEHLP_SYMBOL*;
using PREAD_PROCESS_MEMORY_ROUTINE = BOOL(WINAPI*)(HANDLE, DWORD, PVOID, DWORD, PDWORD);
using PFUNCTION_TABLE_ACCESS_ROUTINE = PVOID(WINAPI*)(HANDLE, DWORD);
using PGET_MODULE_BASE_ROUTINE = DWORD(WINAPI*)(HANDLE, DWORD);
using PTRANSLATE_ADDRESS_ROUTINE = DWORD(WINAPI*)(HANDLE, HANDLE, LPADDRESS);

extern "C" {
/// Symbols come from the modules' own tables, local functions included, and are read once for each module.
QEL_LAYER BOOL WINAPI SymInitialize(HANDLE process, LPCSTR searchPath, BOOL invadeProcess);
QEL_LAYER BOOL WINAPI SymCleanup(HANDLE process);
QEL_LAYER DWORD WINAPI SymGetModuleBase(HANDLE process, DWORD address);
QEL_LAYER BOOL WINAPI SymGetSymFromAddr(HANDLE process, DWORD address, PDWORD displacement, PIMAGEHLP_SYMBOL symbol);
QEL_LAYER PVOID WINAPI SymFunctionTableAccess(HANDLE process, DWORD address);
QEL_LAYER BOOL WINAPI StackWalk(DWORD machine, HANDLE process, HANDLE thread, LPSTACKFRAME frame, PVOID context,
                                PREAD_PROCESS_MEMORY_ROUTINE readMemory, PFUNCTION_TABLE_ACCESS_ROUTINE tableAccess,
                                PGET_MODULE_BASE_ROUTINE moduleBase, PTRANSLATE_ADDRESS_ROUTINE translate);
}
