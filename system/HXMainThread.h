#pragma once

// The process's main thread: the one that ran static initialisation and main().
bool HXIsMainThread();
