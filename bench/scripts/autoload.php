<?php
// autoload.php DIRECTORY CLASSES BLOCKS: loads generated classes through a class loader like
// Composer's and uses each. Prints the user calls of a block, then ns per call of each block.
class PrefixLoader
{
    private $prefixes = array();
    private $missing = array();

    public function add($prefix, $directory)
    {
        $this->prefixes[$prefix[0]][$prefix] = $directory;
    }

    public function loadClass($class)
    {
        $file = $this->findFile($class);
        if ($file) {
            include_class_file($file);
            return true;
        }
        return null;
    }

    private function findFile($class)
    {
        if (isset($this->missing[$class])) {
            return false;
        }
        $file = $this->findFileWithExtension($class, '.php');
        if ($file === false) {
            $this->missing[$class] = true;
        }
        return $file;
    }

    private function findFileWithExtension($class, $extension)
    {
        $path = strtr($class, '\\', DIRECTORY_SEPARATOR) . $extension;
        $prefix = $class;
        while (false !== $end = strrpos($prefix, '\\')) {
            $prefix = substr($prefix, 0, $end);
            if (isset($this->prefixes[$class[0]][$prefix . '\\'])) {
                $file = $this->prefixes[$class[0]][$prefix . '\\'] . substr($path, $end);
                if (is_file($file)) {
                    return $file;
                }
            }
        }
        return false;
    }
}

function include_class_file($file)
{
    include $file;
}

list(, $directory, $classes, $blocks) = $argv;
$loader = new PrefixLoader();
for ($block = 0; $block < $blocks; $block++) {
    $loader->add("Bench\\Shop$block\\", "$directory/Shop$block");
}
spl_autoload_register(array($loader, 'loadClass'));
// Four calls in the loader, and the constructor and three methods of each class.
$calls = 8 * (int) $classes;
echo $calls, "\n";
$sum = 0;
for ($block = 0; $block < $blocks; $block++) {
    $begin = microtime(true);
    for ($i = 0; $i < $classes; $i++) {
        $class = "Bench\\Shop$block\\Model$i";
        $model = new $class($i);
        $sum += $model->id() + strlen($model->name()) + $model->with('a', 1);
    }
    printf("%.3f\n", (microtime(true) - $begin) * 1e9 / $calls);
}
