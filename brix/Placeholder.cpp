// Replaced by the object model and its writers and readers.
