// A list of owned pointers in order of arrival.
#ifndef ZQCOMMON_MYSTORAGE_H
#define ZQCOMMON_MYSTORAGE_H

#include <algorithm>
#include <list>

// Pointers in order of arrival; the list deletes the objects it still holds
// when it is destroyed. Not locked.
template <typename T>
class Storage_List {
 public:
  Storage_List() = default;
  ~Storage_List() {
    for (T p : items_) delete p;
  }
  Storage_List(const Storage_List&) = delete;
  Storage_List& operator=(const Storage_List&) = delete;

  void Add(T p) { items_.push_back(p); }
  // The i-th element, or null past the end.
  T operator[](unsigned int i) const {
    if (i >= items_.size()) return nullptr;
    auto it = items_.begin();
    std::advance(it, i);
    return *it;
  }
  // Removes the first element equal to `p`, deleting it first when `del`.
  void Remove(T p, bool del) {
    auto it = std::find(items_.begin(), items_.end(), p);
    if (it == items_.end()) return;
    if (del) delete *it;
    items_.erase(it);
  }
  // Keeps the first n elements; the dropped ones are not deleted.
  void shrink(unsigned int n) {
    if (items_.size() > n) items_.resize(n);
  }
  unsigned int size() const { return static_cast<unsigned int>(items_.size()); }
  bool empty() const { return items_.empty(); }

 private:
  std::list<T> items_;
};

#endif
