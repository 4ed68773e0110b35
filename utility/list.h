// Intrusive circular doubly linked list: nodes are embedded in records, the list owns nothing. An
// empty list is a head whose next and prev point to itself.
//
// Threads  no lock: the owner of the list locks.
#pragma once

#include <cstddef>

struct LIST_LINK_T {
    LIST_LINK_T *next;
    LIST_LINK_T *prev;
};

void list_init(LIST_LINK_T *head) noexcept;
// Links node directly after the head: the list runs newest first.
void list_add(LIST_LINK_T *node, LIST_LINK_T *head) noexcept;
// Links node directly before the head: the list runs oldest first.
void list_add_tail(LIST_LINK_T *node, LIST_LINK_T *head) noexcept;
// Unlinks node from its neighbours; its own pointers keep their values.
void list_del(LIST_LINK_T *node) noexcept;

// The record around an embedded member; the record must be of standard layout.
// NOLINTBEGIN(bugprone-macro-parentheses): a type cannot be in parentheses there
#define container_of(pointer, record, member)                                                      \
    (static_cast<record *>(                                                                        \
        static_cast<void *>(reinterpret_cast<char *>(pointer) - offsetof(record, member))))
// NOLINTEND(bugprone-macro-parentheses)
