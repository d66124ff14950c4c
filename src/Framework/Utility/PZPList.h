#ifndef PZ_FRAMEWORK_UTILITY_PZPLIST_H
#define PZ_FRAMEWORK_UTILITY_PZPLIST_H

#include <cstddef>
#include <iterator>
#include <memory>
#include <new>

/// Memory from the heap, for containers: a standard allocator without state.
template <typename T>
class PZAllocator {
public:
    using value_type = T;  ///< what the memory is for

    PZAllocator() noexcept = default;
    /// Allocators of all types are the same.
    template <typename U>
    // NOLINTNEXTLINE(google-explicit-constructor): containers convert allocators silently
    PZAllocator(const PZAllocator<U>& /*other*/) noexcept {}

    /// Memory for `count` objects; throws std::bad_alloc when there is none.
    T* allocate(std::size_t count) { return std::allocator<T>().allocate(count); }
    /// Releases it.
    void deallocate(T* memory, std::size_t count) noexcept {
        std::allocator<T>().deallocate(memory, count);
    }

    friend bool operator==(const PZAllocator& /*a*/, const PZAllocator& /*b*/) { return true; }
    friend bool operator!=(const PZAllocator& /*a*/, const PZAllocator& /*b*/) { return false; }
};

/// A node of a PZPList: its neighbours (null at the ends) and the element it points at.
template <typename T>
struct PZPListObj {
    PZPListObj* prev;  ///< towards the head
    PZPListObj* next;  ///< towards the tail
    T* element;        ///< the user's; may be null
};

/// Links nodes that have a `prev` and a `next` into a chain. Neither makes nor frees them.
template <typename NODE>
class PZListBase {
public:
    PZListBase(const PZListBase&) = delete;
    PZListBase& operator=(const PZListBase&) = delete;

    /// Number of nodes.
    unsigned int GetCount() const noexcept { return count_; }

    /// The first node; null when the list is empty.
    NODE* GetHead() const noexcept { return head_; }

    // A walk with the list's own cursor, which stays valid while nodes are erased: when its node
    // goes, it stands on the one after.

    /// The cursor goes to the first node, which is answered; null when the list is empty.
    NODE* MoveFirst() noexcept { return current_ = head_; }
    /// It moves to the next node, which is answered; null after the last one.
    NODE* MoveNext() noexcept {
        if (current_ != nullptr) current_ = current_->next;
        return current_;
    }
    /// The node that it stands on; null after the last one.
    NODE* GetCurrent() const noexcept { return current_; }

protected:
    PZListBase() noexcept = default;
    ~PZListBase() = default;

    /// The last node; null when the list is empty.
    NODE* GetTail() const noexcept { return tail_; }

    /// Makes `node`, which is in no list, the last one.
    void LinkTail(NODE* node) noexcept {
        node->prev = tail_;
        node->next = nullptr;
        (tail_ != nullptr ? tail_->next : head_) = node;
        tail_ = node;
        ++count_;
    }

    /// Takes `node` out; it must be in this list.
    void Unlink(NODE* node) noexcept {
        (node->prev != nullptr ? node->prev->next : head_) = node->next;
        (node->next != nullptr ? node->next->prev : tail_) = node->prev;
        if (current_ == node) current_ = node->next;
        --count_;
    }

    /// Appends all nodes of `other`, which is empty afterwards.
    void LinkAll(PZListBase& other) noexcept {
        if (other.head_ == nullptr || &other == this) return;
        other.head_->prev = tail_;
        (tail_ != nullptr ? tail_->next : head_) = other.head_;
        tail_ = other.tail_;
        count_ += other.count_;
        other.head_ = other.tail_ = other.current_ = nullptr;
        other.count_ = 0;
    }

private:
    NODE* head_ = nullptr;
    NODE* tail_ = nullptr;
    NODE* current_ = nullptr;  // cursor of MoveFirst and MoveNext
    unsigned int count_ = 0;
};

/// A doubly linked list of pointers to T.
///
/// Threads:   no lock of its own.
/// Ownership: the nodes are the list's and go with it; the elements stay the user's. Nodes that are
///            added together share memory, up to 1 KiB, which is freed with the last one of them.
/// Failures:  AddTail throws std::bad_alloc when there is no memory for a node, and leaves the list
///            as it was. Nothing else fails.
template <typename T, typename ALLOCATOR = PZAllocator<T*>>
class PZPList : public PZListBase<PZPListObj<T>> {
public:
    using Node = PZPListObj<T>;  ///< the list's own

    /// Yields the elements from head to tail. Erasing another node leaves it valid.
    class iterator {
    public:
        /// What the standard library asks of an iterator.
        /// @{
        using iterator_category = std::forward_iterator_tag;
        using value_type = T*;
        using difference_type = std::ptrdiff_t;
        using pointer = T* const*;
        using reference = T*;
        /// @}

        /// Stands on `node`; null is the end.
        explicit iterator(const Node* node = nullptr) noexcept : node_(node) {}

        /// The element of the node; on to the next node.
        /// @{
        T* operator*() const noexcept { return node_->element; }
        iterator& operator++() noexcept {
            node_ = node_->next;
            return *this;
        }
        iterator operator++(int) noexcept {
            const iterator before = *this;
            ++*this;
            return before;
        }
        /// @}
        friend bool operator==(iterator a, iterator b) noexcept { return a.node_ == b.node_; }
        friend bool operator!=(iterator a, iterator b) noexcept { return a.node_ != b.node_; }

    private:
        const Node* node_;
    };

    PZPList() = default;
    ~PZPList() {
        while (this->GetHead() != nullptr) Erase(this->GetHead());
    }

    /// Appends a node that points at `element`.
    void AddTail(T* element) {
        Slot* const slot = FreeSlot();
        this->LinkTail(new (&slot->node) Node{nullptr, nullptr, element});
    }

    /// Appends all nodes of `other`, which is empty afterwards. Allocates nothing.
    void Take(PZPList& other) noexcept { this->LinkAll(other); }

    /// Takes the node out and frees it, not its element. It must be of this list; null is ignored.
    void Erase(Node* node) {
        if (node == nullptr) return;
        this->Unlink(node);
        Slot* const block = reinterpret_cast<Slot*>(node)->block;
        if (--block->head.live == 0) Allocator().deallocate(block, block->head.places);
    }

    /// The elements, for range-based for loops.
    /// @{
    iterator begin() const noexcept { return iterator(this->GetHead()); }
    iterator end() const noexcept { return iterator(); }
    /// @}

private:
    static constexpr unsigned int kMaxPlaces = 29;  // larger blocks cost the C library more

    // Memory of a node. The nodes lie in blocks, because one allocation for each of them costs more
    // than all else that is done with it. The first slot of a block counts the others; the block
    // goes with the last of its nodes.
    struct BlockHead {
        unsigned int places;  // the first one included
        unsigned int used;
        unsigned int live;  // nodes that are not erased
    };
    struct Slot {
        union {
            Node node;
            BlockHead head;
        };
        Slot* block;
    };
    using Allocator = typename std::allocator_traits<ALLOCATOR>::template rebind_alloc<Slot>;

    /// The next slot of the last node's block, or the first one of a new block: a list that grows
    /// is at least half full.
    Slot* FreeSlot() {
        const Node* const tail = this->GetTail();
        Slot* block = tail != nullptr ? reinterpret_cast<const Slot*>(tail)->block : nullptr;
        if (block == nullptr || block->head.used == block->head.places) block = NewBlock();
        Slot* const slot = block + block->head.used++;
        slot->block = block;
        ++block->head.live;
        return slot;
    }

    Slot* NewBlock() {
        unsigned int places = this->GetCount() + 1;
        if (places < 2) places = 2;
        if (places > kMaxPlaces) places = kMaxPlaces;
        Slot* const block = Allocator().allocate(places);
        block->head = {places, 1, 0};
        return block;
    }
};

#endif  // PZ_FRAMEWORK_UTILITY_PZPLIST_H
