#pragma once

// HXFileManager: the stateless file services, one header per concern, all in the
// HXFileManager namespace. Include this header to get all of them.

#include "fs/HXArchive.h"
#include "fs/HXAsyncCopy.h"
#include "fs/HXDigests.h"
#include "fs/HXFileAttributes.h"
#include "fs/HXFileNames.h"
#include "fs/HXFileOperations.h"
#include "fs/HXFileWaits.h"
#include "fs/HXFinderLabels.h"
#include "fs/HXVerifiedCopy.h"
#include "fs/HXVolumes.h"
#include "fs/HXWildcardPaths.h"
