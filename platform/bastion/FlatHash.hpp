#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <type_traits>
#include <utility>
#include <vector>

namespace Bastion
{
  /// A hash table from small keys (integers, pointers) to small values, kept in one array with
  /// open addressing and linear probing.
  ///
  /// The per-object tables of a tree (symbol to attribute, attribute to mark...) get one entry per
  /// attribute; a node-based table costs an allocation per entry and, as it grows, a walk over
  /// nodes scattered across the heap. Here an insertion costs no allocation of its own and a
  /// lookup touches one or two cache lines. Erasure shifts the following entries back, so no
  /// tombstones pile up. Not thread-safe; pointers returned by `find` stay valid until the next
  /// insertion or erasure.
  ///
  /// Keys are placed by their own value (pointers shifted past their alignment), so that keys
  /// made in sequence (this process's symbols, objects allocated one after another) sit side by
  /// side and a walk over them reads memory in order. Keys a peer chooses (`PeerKeys`) could be
  /// picked to share one slot and make every operation walk one long run: they are placed in
  /// runs of 16 consecutive keys, the runs spread by a mix with a seed drawn per process.
  template <typename Key, typename Value, bool PeerKeys = false>
  class FlatHash
  {
    static_assert(std::is_integral<Key>::value || std::is_pointer<Key>::value, "integer or pointer keys");

  public:
    /// The value of `key`, or null.
    Value* find(Key key)
    {
      const size_t i = indexOf(key);
      return i == NotFound ? nullptr : &m_slots[i].value;
    }
    const Value* find(Key key) const { return const_cast<FlatHash*>(this)->find(key); }
    bool contains(Key key) const { return find(key) != nullptr; }

    /// Adds `key` with `value` unless it is there; returns its value and whether it was added.
    std::pair<Value*, bool> insert(Key key, const Value& value)
    {
      if (Value* existing = find(key))
        return {existing, false};
      // At most four fifths full: with the runs sorted by home slot, probes stay a few slots
      // long at that load, and every slot costs memory for each attribute of a tree.
      if ((m_size + 1) * 5 > m_slots.size() * 4)
        grow();
      ++m_size;
      return {place(Slot{key, value, 0}), true};
    }

    /// Sets the value of `key`, adding it when missing.
    void set(Key key, const Value& value) { *insert(key, value).first = value; }

    /// Removes `key`; false when it was not there.
    bool erase(Key key)
    {
      if (m_size == 0)
        return false;
      size_t i = indexOf(key);
      if (i == NotFound)
        return false;
      // Entries are kept in the order of their home slots (see `place`), so the entries behind
      // the hole move back one slot each until one is at its home or a slot is free.
      for (size_t j = (i + 1) & m_mask; m_slots[j].probe > 1; j = (j + 1) & m_mask) {
        m_slots[i] = m_slots[j];
        --m_slots[i].probe;
        i = j;
      }
      // A value that holds memory (a string) lets go of it now, not when the slot is reused.
      m_slots[i] = Slot{};
      --m_size;
      return true;
    }

    size_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }

    void clear()
    {
      m_slots.clear();
      m_mask = 0;
      m_size = 0;
    }

    /// Calls `f(key, value)` for every entry, in no particular order; `f` must not change the table.
    template <typename F>
    void forEach(F&& f) const
    {
      for (const Slot& slot : m_slots)
        if (slot.probe != 0)
          f(slot.key, slot.value);
    }

  private:
    struct Slot
    {
      Key key{};
      Value value{};
      /// 0 for a free slot, else 1 + the entry's distance from its home slot: kept, so that no
      /// probe has to hash the keys it passes.
      uint32_t probe = 0;
    };

    static constexpr size_t NotFound = ~size_t(0);

    size_t indexOf(Key key) const
    {
      if (m_size == 0)
        return NotFound;
      for (size_t i = home(key), probe = 1;; i = (i + 1) & m_mask, ++probe) {
        const Slot& slot = m_slots[i];
        // Runs are sorted by home slot (see `place`): a free slot, or an entry nearer its home
        // than the key would be here, means the key is not in the table, so a miss stops as
        // early as a hit.
        if (slot.probe < probe)
          return NotFound;
        if (slot.key == key)
          return i;
      }
    }

    static uint64_t seed()
    {
      static const uint64_t value = (uint64_t(std::random_device{}()) << 32) ^ std::random_device{}();
      return value;
    }

    size_t home(Key key) const
    {
      uint64_t bits;
      if constexpr (std::is_pointer<Key>::value)
        bits = uint64_t(reinterpret_cast<uintptr_t>(key)) >> 4;
      else
        bits = uint64_t(key);
      if constexpr (PeerKeys) {
        // The finaliser of MurmurHash3 over the run number and the seed.
        uint64_t run = (bits >> 4) ^ seed();
        run ^= run >> 33;
        run *= 0xFF51AFD7ED558CCDull;
        run ^= run >> 33;
        run *= 0xC4CEB9FE1A85EC53ull;
        run ^= run >> 33;
        bits = (run << 4) | (bits & 15);
      }
      return size_t(bits) & m_mask;
    }

    void grow()
    {
      std::vector<Slot> old;
      old.swap(m_slots);
      const size_t capacity = old.empty() ? 16 : old.size() * 2;
      m_slots.assign(capacity, Slot{});
      m_mask = capacity - 1;
      for (const Slot& slot : old)
        if (slot.probe != 0)
          place(slot);
    }

    /// Puts a new entry in the table, which has a free slot, and returns where its value went.
    /// An entry that is farther from its home than the one in its way takes that slot and moves
    /// the other on: runs stay sorted by home slot, so an erasure only moves the entries that
    /// are away from their homes (without this, keys made in sequence fill one long run that
    /// every erasure would walk to its end).
    Value* place(Slot entry)
    {
      Value* placed = nullptr;
      entry.probe = 1;
      for (size_t i = home(entry.key);; i = (i + 1) & m_mask, ++entry.probe) {
        Slot& slot = m_slots[i];
        if (slot.probe == 0) {
          slot = entry;
          return placed ? placed : &slot.value;
        }
        if (slot.probe < entry.probe) {
          // The entry moved on carries its own distance.
          std::swap(slot, entry);
          if (!placed)
            placed = &slot.value;
        }
      }
    }

    std::vector<Slot> m_slots;
    size_t m_mask = 0;
    size_t m_size = 0;
  };
}
