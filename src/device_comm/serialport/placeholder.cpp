// Placeholder: the serial layer lands here.
