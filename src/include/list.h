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

// The first node of a free list as a new entry that is on no list; null when the list is empty. A node serves
// entries of different types in turn, so the whole node is zeroed, also behind a shorter entry.
template <class Entry, class Node = Entry> Entry *list_take(DhcpsnoopLink *freeList)
{
    if (list_empty(freeList))
        return nullptr;
    DhcpsnoopLink *node = freeList->next;
    list_unlink(node);
    std::memset(static_cast<void *>(node), 0, sizeof(Node));
    return ::new (static_cast<void *>(node)) Entry{};
}

// for (Entry *entry : list_each<Entry>(&head)), or hash_each<Entry>(heads) for the lists of a hash table one
// after the other. The next link is fetched before the body runs, so the body may unlink or relink the entry
// it was given.
template <class Entry> class ListWalk
{
  public:
    class Iterator
    {
      public:
        Iterator(DhcpsnoopLink *head, const DhcpsnoopLink *last) : head_(head), last_(last), next_(head->next)
        {
            ++*this;
        }
        Entry *operator*() const { return static_cast<Entry *>(at_); }
        bool operator!=(std::nullptr_t) const { return at_ != nullptr; }
        Iterator &operator++()
        {
            while (next_ == head_ || next_ == nullptr) { // the end of a list
                if (head_ == last_) {
                    at_ = nullptr;
                    return *this;
                }
                next_ = (++head_)->next;
            }
            at_ = next_;
            next_ = at_->next;
            return *this;
        }

      private:
        DhcpsnoopLink *head_;
        const DhcpsnoopLink *last_;
        DhcpsnoopLink *at_ = nullptr, *next_;
    };

    ListWalk(DhcpsnoopLink *first, size_t heads) : first_(first), heads_(heads) {}
    Iterator begin() const { return Iterator(first_, first_ + heads_ - 1); }
    std::nullptr_t end() const { return nullptr; }

  private:
    DhcpsnoopLink *first_;
    size_t heads_;
};

template <class Entry> ListWalk<Entry> list_each(DhcpsnoopLink *head) { return {head, 1}; }

template <class Entry, size_t Heads> ListWalk<Entry> hash_each(DhcpsnoopLink (&heads)[Heads])
{
    return {heads, Heads};
}
