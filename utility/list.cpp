#include "utility/list.h"

namespace {

void link_between(LIST_LINK_T *node, LIST_LINK_T *prev, LIST_LINK_T *next)
{
    node->next = next;
    node->prev = prev;
    prev->next = node;
    next->prev = node;
}

} // namespace

void list_init(LIST_LINK_T *head) noexcept
{
    head->next = head;
    head->prev = head;
}

void list_add(LIST_LINK_T *node, LIST_LINK_T *head) noexcept
{
    link_between(node, head, head->next);
}

void list_add_tail(LIST_LINK_T *node, LIST_LINK_T *head) noexcept
{
    link_between(node, head->prev, head);
}

void list_del(LIST_LINK_T *node) noexcept
{
    node->prev->next = node->next;
    node->next->prev = node->prev;
}
