#include "contract.hpp"
