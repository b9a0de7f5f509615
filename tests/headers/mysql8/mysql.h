// SPDX-License-Identifier: Apache-2.0
//
// MySQL 8's client header has no my_bool and no use for a UDF library that includes the registration types.
#error "The UDF library includes <mysql/udf_registration_types.h> where there is one."
