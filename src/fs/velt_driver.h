// Block driver backends (to be filled in).
#pragma once
