// Everything that generated entity, value and enumeration code calls: one
// include for the generator to emit.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <tuple>

#include "mroute/entity/attribute.h"
#include "mroute/entity/child_collection.h"
#include "mroute/entity/collection.h"
#include "mroute/entity/mount_path.h"
#include "mroute/entity/notifiee.h"
#include "mroute/entity/kiv/text_form.h"
#include "mroute/entity/value_type.h"
#include "mroute/entity/kiv/entity.h"
#include "mroute/entity/kiv/enumeration.h"
#include "mroute/entity/kiv/hash_map.h"
#include "mroute/entity/kiv/ptr.h"
#include "mroute/entity/kiv/string.h"
#include "mroute/entity/kiv/type_registry.h"
