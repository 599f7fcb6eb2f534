// The few C library functions that meet a caller's pointers, with unwind tables: the system's C runtime has none, so a
// fault inside it would skip the destructors of everything up to the guard. Compiled so that the compiler does not turn
// the loops back into calls of the functions themselves.
#include <stddef.h>
#include <stdint.h>
#include <wchar.h>

size_t strlen(const char* text) {
  const char* end = text;
  while (*end) ++end;
  return (size_t)(end - text);
}

size_t strnlen(const char* text, size_t most) {
  size_t length = 0;
  while (length < most && text[length]) ++length;
  return length;
}

size_t wcslen(const wchar_t* text) {
  const wchar_t* end = text;
  while (*end) ++end;
  return (size_t)(end - text);
}

size_t wcsnlen(const wchar_t* text, size_t most) {
  size_t length = 0;
  while (length < most && text[length]) ++length;
  return length;
}

static void CopyUpwards(void* to, const void* from, size_t bytes) {
  __asm__ __volatile__("rep movsb" : "+D"(to), "+S"(from), "+c"(bytes) : : "memory");
}

void* memcpy(void* to, const void* from, size_t bytes) {
  CopyUpwards(to, from, bytes);
  return to;
}

void* memmove(void* to, const void* from, size_t bytes) {
  if ((uintptr_t)to - (uintptr_t)from >= bytes) {
    CopyUpwards(to, from, bytes);
    return to;
  }
  unsigned char* target = to;
  const unsigned char* source = from;
  while (bytes > 0) {
    --bytes;
    target[bytes] = source[bytes];
  }
  return to;
}

void* memset(void* to, int value, size_t bytes) {
  void* target = to;
  __asm__ __volatile__("rep stosb" : "+D"(target), "+c"(bytes) : "a"(value) : "memory");
  return to;
}

int memcmp(const void* left, const void* right, size_t bytes) {
  const unsigned char* one = left;
  const unsigned char* other = right;
  for (; bytes > 0; --bytes, ++one, ++other)
    if (*one != *other) return *one < *other ? -1 : 1;
  return 0;
}
