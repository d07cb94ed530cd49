<?php
// The products live in SQLite when the engine can talk to it through PDO, else in an array.

class Store
{
    private $db = null;

    private static $products = [
        [1, 'Teapot', 2450, 'kitchen'],
        [2, 'Lamp', 3900, 'light'],
        [3, 'Chair', 8900, 'room'],
        [4, 'Candle', 390, 'light'],
        [5, 'Kettle', 4200, 'kitchen'],
    ];

    public static function open()
    {
        $store = new self();
        if (self::hasSqlite()) {
            $store->connect();
        }
        return $store;
    }

    public static function hasSqlite()
    {
        return class_exists('PDO', false) && in_array('sqlite', PDO::getAvailableDrivers(), true);
    }

    private function connect()
    {
        $this->db = new PDO('sqlite::memory:');
        $this->db->setAttribute(PDO::ATTR_ERRMODE, PDO::ERRMODE_EXCEPTION);
        $this->db->exec('CREATE TABLE product (id INTEGER PRIMARY KEY, name TEXT, cents INT, room TEXT)');
        $this->fill();
    }

    private function fill()
    {
        $this->db->beginTransaction();
        $insert = $this->db->prepare('INSERT INTO product VALUES (?, ?, ?, ?)');
        foreach (self::$products as $product) {
            $insert->execute($product);
        }
        $this->db->commit();
        wait_for('the disk', 10);
    }

    public function all()
    {
        if ($this->db === null) {
            return array_map([$this, 'named'], self::$products);
        }
        return $this->db->query('SELECT id, name, cents, room FROM product ORDER BY name')
            ->fetchAll(PDO::FETCH_ASSOC);
    }

    public function find($id)
    {
        wait_for('a lock', 11);
        if ($this->db !== null) {
            $query = $this->db->prepare('SELECT id, name, cents, room FROM product WHERE id = ?');
            $query->execute([$id]);
            $found = $query->fetch(PDO::FETCH_ASSOC);
            return $found === false ? null : $found;
        }
        foreach ($this->all() as $product) {
            if ($product['id'] === $id) {
                return $product;
            }
        }
        return null;
    }

    private function named($product)
    {
        return array_combine(['id', 'name', 'cents', 'room'], $product);
    }

    public function close()
    {
        $this->db = null;
    }
}
