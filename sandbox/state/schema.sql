-- What the service remembers. Times are ISO 8601 in UTC, to the millisecond; amounts of money are
-- decimal numbers as text. A statement ends with a semicolon at the end of a line, and nothing else
-- does. Any change that old databases do not have needs a new schemaVersion, in store.cpp.

CREATE TABLE products (
    product_code TEXT NOT NULL PRIMARY KEY CHECK (product_code <> ''),
    name TEXT NOT NULL
) STRICT;

CREATE TABLE plans (
    id INTEGER PRIMARY KEY,
    product_code TEXT NOT NULL REFERENCES products,
    plan_code TEXT NOT NULL CHECK (plan_code <> ''),
    name TEXT NOT NULL,
    description TEXT NOT NULL,
    price TEXT NOT NULL CHECK (price GLOB '[0-9]*.[0-9][0-9]' AND price NOT GLOB '*[^0-9.]*'
                               AND price NOT GLOB '*.*.*'),
    currency TEXT NOT NULL CHECK (currency GLOB '[A-Z][A-Z][A-Z]'),
    UNIQUE (product_code, plan_code)
) STRICT;

CREATE TABLE licenses (
    -- Starts at 1001: a host that takes a payment's id for a licence's then notices.
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    license_key TEXT NOT NULL UNIQUE CHECK (license_key <> ''),
    product_code TEXT NOT NULL,
    plan_code TEXT NOT NULL,
    first_name TEXT NOT NULL,
    last_name TEXT NOT NULL,
    email TEXT NOT NULL,
    status TEXT NOT NULL DEFAULT 'pending' CHECK (status IN ('pending', 'active')),
    created_at TEXT NOT NULL DEFAULT (strftime('%Y-%m-%dT%H:%M:%fZ', 'now'))
        CHECK (datetime(created_at) IS NOT NULL AND created_at GLOB '????-??-??T??:??:??.???Z'),
    FOREIGN KEY (product_code, plan_code) REFERENCES plans (product_code, plan_code)
) STRICT;

CREATE TABLE orders (
    id INTEGER PRIMARY KEY,
    paypal_order_id TEXT NOT NULL UNIQUE CHECK (paypal_order_id <> ''),
    license_id INTEGER NOT NULL UNIQUE REFERENCES licenses,
    -- As they were when the buyer chose.
    plan_name TEXT NOT NULL,
    price TEXT NOT NULL,
    currency TEXT NOT NULL,
    created_at TEXT NOT NULL DEFAULT (strftime('%Y-%m-%dT%H:%M:%fZ', 'now'))
        CHECK (datetime(created_at) IS NOT NULL AND created_at GLOB '????-??-??T??:??:??.???Z'),
    approved_at TEXT
        CHECK (approved_at IS NULL OR (datetime(approved_at) IS NOT NULL
                                       AND approved_at GLOB '????-??-??T??:??:??.???Z')),
    cancelled_at TEXT
        CHECK (cancelled_at IS NULL OR (datetime(cancelled_at) IS NOT NULL
                                       AND cancelled_at GLOB '????-??-??T??:??:??.???Z')),
    CHECK (approved_at IS NULL OR cancelled_at IS NULL)
) STRICT;

CREATE TABLE payments (
    -- The order's id, and so no order is paid twice.
    id INTEGER PRIMARY KEY REFERENCES orders,
    amount TEXT NOT NULL,
    currency TEXT NOT NULL,
    paid_at TEXT NOT NULL DEFAULT (strftime('%Y-%m-%dT%H:%M:%fZ', 'now'))
        CHECK (datetime(paid_at) IS NOT NULL AND paid_at GLOB '????-??-??T??:??:??.???Z')
) STRICT;

CREATE TABLE usage_events (
    id INTEGER PRIMARY KEY,
    product_code TEXT NOT NULL REFERENCES products,
    -- NULL when the event came without one.
    license_key TEXT REFERENCES licenses (license_key),
    machine_fingerprint TEXT NOT NULL,
    event_type TEXT NOT NULL,
    -- A JSON object: what the host sent beside the columns above.
    payload TEXT NOT NULL,
    received_at TEXT NOT NULL DEFAULT (strftime('%Y-%m-%dT%H:%M:%fZ', 'now'))
        CHECK (datetime(received_at) IS NOT NULL AND received_at GLOB '????-??-??T??:??:??.???Z')
) STRICT;

-- The next two list what the releases folder holds, for people. The service asks the folder.

CREATE TABLE channels (
    product_code TEXT NOT NULL REFERENCES products,
    channel TEXT NOT NULL,
    PRIMARY KEY (product_code, channel)
) STRICT;

CREATE TABLE releases (
    product_code TEXT NOT NULL,
    channel TEXT NOT NULL,
    version TEXT NOT NULL,
    file TEXT NOT NULL,
    size INTEGER NOT NULL,
    -- NULL until an update check has asked for it.
    sha256 TEXT CHECK (length(sha256) = 64),
    is_latest INTEGER NOT NULL CHECK (is_latest IN (0, 1)),
    PRIMARY KEY (product_code, channel, version),
    FOREIGN KEY (product_code, channel) REFERENCES channels ON DELETE CASCADE
) STRICT;

CREATE VIEW order_overview AS
SELECT o.id AS payment_id, o.paypal_order_id,
    CASE WHEN p.id IS NOT NULL THEN 'paid'
         WHEN o.approved_at IS NOT NULL THEN 'approved'
         WHEN o.cancelled_at IS NOT NULL THEN 'cancelled'
         ELSE 'pending' END AS state,
    l.id AS license_id, l.license_key, l.product_code, l.plan_code, o.plan_name, o.price,
    o.currency, l.first_name, l.last_name, l.email, o.created_at, o.approved_at, o.cancelled_at,
    p.paid_at
FROM orders o JOIN licenses l ON l.id = o.license_id LEFT JOIN payments p ON p.id = o.id;

CREATE VIEW sales_by_plan AS
SELECT product_code, plan_code, currency, count(*) AS payments,
    printf('%d.%02d', sum(cents) / 100, sum(cents) % 100) AS total
FROM (SELECT l.product_code, l.plan_code, p.currency,
          CAST(replace(p.amount, '.', '') AS INTEGER) AS cents
      FROM payments p JOIN orders o ON o.id = p.id JOIN licenses l ON l.id = o.license_id)
GROUP BY product_code, plan_code, currency;

CREATE VIEW usage_by_day AS
SELECT date(received_at) AS day, product_code, event_type, count(*) AS events,
    count(DISTINCT machine_fingerprint) AS machines
FROM usage_events GROUP BY day, product_code, event_type;
