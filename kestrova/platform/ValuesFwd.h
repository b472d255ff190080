#pragma once

#include <boost/json/fwd.hpp>

namespace kestrova {

/// A JSON object, array and value. Everything that crosses the wire is made of these.
///
/// This header only names them; whoever makes or reads one includes Values.h.
using Dictionary = boost::json::object;
using List = boost::json::array;
using Value = boost::json::value;

}  // namespace kestrova
