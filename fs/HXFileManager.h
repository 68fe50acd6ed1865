#pragma once

// HXFileManager: the stateless file services, one header per concern, all in the
// HXFileManager namespace. Include this header to get all of them.

#include "fs/HXWildcardPaths.h"
