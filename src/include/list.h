// Circular doubly linked lists with a sentinel head. Links are written here only. A head or an entry that was
// never linked has null links: such a head counts as empty, such an entry is not unlinked.
#pragma once

#include <cstring>
#include <new>

#include "dhcpsnoop.h"

inline void list_init(DhcpsnoopLink *head) { head->next = head->prev = head; }

inline bool list_empty(const DhcpsnoopLink *head) { return head->next == nullptr || head->next == head; }

// After a head: becomes the first entry.
inline void list_insert_after(DhcpsnoopLink *where, DhcpsnoopLink *entry)
{
    entry->next = where->next;
    entry->prev = where;
    where->next->prev = entry;
    where->next = entry;
}

// On some list, a free list included.
inline bool list_linked(const DhcpsnoopLink *entry)
{
    return entry->next != nullptr && entry->prev != nullptr;
}

inline void list_unlink(DhcpsnoopLink *entry)
{
    if (!list_linked(entry))
        return;
    entry->prev->next = entry->next;
    entry->next->prev = entry->prev;
    entry->next = entry->prev = nullptr;
}

// The first node of a free list as a new entry that is on no list; null when there is none. A node serves
// entries of different types in turn, so all of it is zeroed, also behind an entry that is shorter.
template <class Entry, class Node = Entry> Entry *list_take(DhcpsnoopLink *freeList)
{
    if (list_empty(freeList))
        return nullptr;
    DhcpsnoopLink *node = freeList->next;
    list_unlink(node);
    std::memset(static_cast<void *>(node), 0, sizeof(Node));
    return ::new (static_cast<void *>(node)) Entry{};
}

// for (Entry *entry : list_each<Entry>(&head)). The next link is fetched before the body runs, so the body
// may unlink or relink the entry it was given.
template <class Entry> class ListWalk
{
  public:
    class Iterator
    {
      public:
        Iterator(DhcpsnoopLink *at) : at_(at), next_(at != nullptr ? at->next : nullptr) {}
        Entry *operator*() const { return static_cast<Entry *>(at_); }
        bool operator!=(const Iterator &end) const { return at_ != nullptr && at_ != end.at_; }
        Iterator &operator++()
        {
            at_ = next_;
            next_ = at_ != nullptr ? at_->next : nullptr;
            return *this;
        }

      private:
        DhcpsnoopLink *at_, *next_;
    };

    explicit ListWalk(DhcpsnoopLink *head) : head_(head) {}
    Iterator begin() const { return Iterator(head_->next); }
    Iterator end() const { return Iterator(head_); }

  private:
    DhcpsnoopLink *head_;
};

template <class Entry> ListWalk<Entry> list_each(DhcpsnoopLink *head) { return ListWalk<Entry>(head); }
