"""Shows the traffic that a log of Zelvo tells of."""
