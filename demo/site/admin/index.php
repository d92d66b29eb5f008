<?php
require __DIR__ . '/../includes/price.php';
echo '<h1>Orders of today</h1>';
