#pragma once

namespace oxpliv {

// The range [start, end) of a number line. No operation checks anything.
class AddressBlock {
 public:
  AddressBlock(unsigned long start, unsigned long end) : _start(start), _end(end) {}

  unsigned long start() const { return _start; }
  unsigned long end() const { return _end; }
  unsigned long size() const { return _end - _start; }
  void shrink_from_front(unsigned long units) { _start += units; }
  void shrink_from_back(unsigned long units) { _end -= units; }
  void grow_from_front(unsigned long units) { _start -= units; }
  void grow_from_back(unsigned long units) { _end += units; }

 private:
  unsigned long _start;
  unsigned long _end;
};

}  // namespace oxpliv
