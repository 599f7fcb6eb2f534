/// @file
/// The framework's list of pointers, as far as it is used. It owns its nodes, not what they point to.
#pragma once
#include "qelibaselib/platform/win32.h"

struct __POSITION {};
using POSITION = __POSITION*;

class CPtrList {
 public:
  /// `blockSize` is accepted for the framework's sake; nodes are allocated one by one.
  explicit CPtrList(INT_PTR blockSize = 10) { static_cast<void>(blockSize); }
  CPtrList(const CPtrList&) = delete;
  CPtrList& operator=(const CPtrList&) = delete;
  ~CPtrList() { RemoveAll(); }

  INT_PTR GetCount() const { return count_; }
  BOOL IsEmpty() const { return count_ == 0; }
  POSITION GetHeadPosition() const { return AsPosition(head_); }
  void* GetHead() const { return head_->value; }
  /// Returns the element and moves `position` on; null behind the last.
  void* GetNext(POSITION& position) const {
    const ListNode* node = AsNode(position);
    position = AsPosition(node->next);
    return node->value;
  }
  /// Throws std::bad_alloc without memory.
  POSITION AddTail(void* value) {
    ListNode* node = new ListNode{nullptr, tail_, value};
    (tail_ ? tail_->next : head_) = node;
    tail_ = node;
    ++count_;
    return AsPosition(node);
  }
  void* RemoveHead() {
    void* value = head_->value;
    RemoveAt(AsPosition(head_));
    return value;
  }
  void RemoveAt(POSITION position) {
    ListNode* node = AsNode(position);
    (node->previous ? node->previous->next : head_) = node->next;
    (node->next ? node->next->previous : tail_) = node->previous;
    delete node;
    --count_;
  }
  void RemoveAll() {
    while (head_) RemoveHead();
  }
  POSITION Find(void* value) const {
    for (ListNode* node = head_; node; node = node->next)
      if (node->value == value) return AsPosition(node);
    return nullptr;
  }

 private:
  struct ListNode {
    ListNode* next;
    ListNode* previous;
    void* value;
  };
  static POSITION AsPosition(ListNode* node) { return reinterpret_cast<POSITION>(node); }
  static ListNode* AsNode(POSITION position) { return reinterpret_cast<ListNode*>(position); }
  ListNode* head_ = nullptr;
  ListNode* tail_ = nullptr;
  INT_PTR count_ = 0;
};
