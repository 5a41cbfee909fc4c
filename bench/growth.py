"""Calculates the complexity of a cost from measured points, by least squares."""

import math

ORDERS = (
    ("1", lambda n: 1.0),
    ("log n", lambda n: math.log2(n) if n > 1 else 0.0),
    ("n", lambda n: float(n)),
    ("n log n", lambda n: n * math.log2(n) if n > 1 else 0.0),
    ("n^2", lambda n: float(n * n)),
)


def fitted(points):
    """Returns (name of the order, coefficient, error relative to the mean) for a list of points (n, cost).

    The formula is cost = base + coefficient * order(n). If several orders fit equally well (to one
    hundredth), the result is the lowest of them.
    """
    mean = sum(cost for _, cost in points) / len(points)
    found = []
    for name, order in ORDERS:
        xs = [order(n) for n, _ in points]
        middle = sum(xs) / len(xs)
        spread = sum((x - middle) ** 2 for x in xs)
        slope = (sum((x - middle) * cost for x, (_, cost) in zip(xs, points)) / spread
                 if spread else 0.0)
        if slope < 0:
            continue
        left = [cost - mean - slope * (x - middle) for x, (_, cost) in zip(xs, points)]
        error = math.sqrt(sum(value * value for value in left) / len(left)) / mean
        found.append((name, slope, error))
    best = min(error for _, _, error in found)
    return next(fit for fit in found if fit[2] <= best + 0.01)
