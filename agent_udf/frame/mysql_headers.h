// SPDX-License-Identifier: Apache-2.0
//
// The server's UDF interface, from MySQL's headers or from MariaDB's.
#pragma once

#if __has_include(<mysql/udf_registration_types.h>)
#include <mysql/udf_registration_types.h>

namespace frame {
using ServerBool = bool;
}
#else
#include <mysql.h>

namespace frame {
using ServerBool = my_bool;
}
#endif
