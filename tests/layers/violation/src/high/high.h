// The layer above.
#pragma once
