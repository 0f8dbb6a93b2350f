#pragma once
// The Boost.Thread version of every program that uses these libraries' futures and promises:
// the types and their layout differ between versions, so a program built with another version
// would fail in templates deep inside Boost, or at run time. The quorl::defs CMake target and
// the pkg-config file set it.
#if defined(BOOST_THREAD_VERSION) && BOOST_THREAD_VERSION != 2
#error "quorl is built with BOOST_THREAD_VERSION=2: build this program with the same"
#endif
