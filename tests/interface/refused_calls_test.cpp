#include "heap.hpp"
