// The one macro that makes a name visible outside the shared library.
#pragma once

#define DISKCACHE_EXPORT [[gnu::visibility("default")]]
