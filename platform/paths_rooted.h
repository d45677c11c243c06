// Only for programs that link paths_rooted.cpp: tests, tools and other clients, never the product.
#pragma once

/// Moves every path below `root`, in place of TAVIRN_ROOT. Call before other threads use paths().
/// An empty root gives the fixed paths, and so does "/".
void setPathsRoot(const char* root);
